#include "DeferredValues.h"

#include <utility>

namespace micro850::host {

QByteArray DeferredValues::store()
{
    const std::optional<ArrivedValues> held = std::exchange(m_held, std::nullopt);
    if (!held)
        return QByteArray();
    const QByteArray bytes =
        m_driver.storedValue(held->tag, *held->type, held->element, held->inReply);
    m_values.store(held->tag, held->element, *held->type, bytes, held->at);
    return bytes;
}

} // namespace micro850::host
