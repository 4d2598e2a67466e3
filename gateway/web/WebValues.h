#ifndef MICRO850_GATEWAY_WEB_WEBVALUES_H
#define MICRO850_GATEWAY_WEB_WEBVALUES_H

#include "VariableIndex.h"

namespace micro850::gateway {

/// The digits of an integer, or of each of an array, that a browser's numbers may not hold; null
/// for anything else.
Json exactText(const Json& value);
/// The key `textKey` with the digits of `object[key]`, where that is an integer beyond 2^53 - 1.
void addExactText(Json& object, const char* key, const char* textKey);

/// The latest values as the interface for programs writes them: the protocol's object with the age
/// and, of integers of 64 bits, the exact digits. What does not age is encoded once for all.
class WebValues
{
public:
    WebValues(const LineService& lines, const VariableIndex& index) : m_lines(lines), m_index(index)
    {
        reset();
    }

    QByteArray text(int number);
    /// The variable has a new value.
    void forget(int number) { m_texts[number].clear(); }
    /// Call it when the index was rebuilt.
    void reset();

private:
    const LineService& m_lines;
    const VariableIndex& m_index;
    QVector<QByteArray> m_texts; ///< without the age and the brace at the end
};

} // namespace micro850::gateway

#endif
