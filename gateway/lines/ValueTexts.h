#ifndef MICRO850_GATEWAY_LINES_VALUETEXTS_H
#define MICRO850_GATEWAY_LINES_VALUETEXTS_H

#include "VariableIndex.h"

namespace micro850::gateway {

/// The latest values as the protocol writes them: each is encoded once for all who ask.
class ValueTexts
{
public:
    explicit ValueTexts(const VariableIndex& index) : m_index(index) {}

    /// The object of a variable's value, as it was when it was asked for first since forget().
    const QByteArray& text(int number)
    {
        QByteArray& text = m_texts[number];
        if (text.isEmpty())
            text = host::encoded(m_index.latest(number));
        return text;
    }
    void forget(int number) { m_texts[number].clear(); }
    /// Call it when the index was rebuilt.
    void reset()
    {
        m_texts.clear();
        m_texts.resize(m_index.size());
    }

private:
    const VariableIndex& m_index;
    QVector<QByteArray> m_texts;
};

} // namespace micro850::gateway

#endif
