#include "DeferredValues.h"

namespace micro850::host {

QByteArray DeferredValues::store()
{
    if (!m_held)
        return QByteArray();
    const ArrivedValues& held = *m_held;
    QByteArray bytes = m_driver.storedValue(held.tag, *held.type, held.element, held.inReply);
    m_values.store(held.tag, held.element, *held.type, bytes, held.at);
    m_held.reset();
    return bytes;
}

} // namespace micro850::host
