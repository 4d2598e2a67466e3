#include "WebValues.h"

#include "VariableObject.h"

#include <algorithm>

namespace micro850::gateway {

namespace {

const int kExactBytes = 8;
const qint64 kMostExact = 9007199254740991; // 2^53 - 1

bool isBeyondExact(const Json& value)
{
    if (value.is_number_unsigned())
        return value.get<std::uint64_t>() > static_cast<std::uint64_t>(kMostExact);
    if (!value.is_number_integer())
        return false;
    const auto number = value.get<std::int64_t>();
    return number < -kMostExact || number > kMostExact;
}

} // namespace

Json exactText(const Json& value)
{
    if (value.is_number_integer())
        return value.dump();
    const bool isArray = value.is_array() && !value.empty() &&
                         std::all_of(value.begin(), value.end(),
                                     [](const Json& one) { return one.is_number_integer(); });
    if (!isArray)
        return Json();
    Json texts = Json::array();
    for (const Json& one : value)
        texts.push_back(one.dump());
    return texts;
}

void addExactText(Json& object, const char* key, const char* textKey)
{
    const auto found = object.find(key);
    if (found != object.end() && isBeyondExact(*found))
        object[textKey] = exactText(*found);
}

QByteArray WebValues::text(int number)
{
    QByteArray& begin = m_texts[number];
    if (begin.isEmpty()) {
        const GatewayValue& latest = m_index.latest(number);
        begin = host::encoded(latest);
        begin.chop(1);
        const Json exact =
            latest.type && latest.type->size == kExactBytes ? exactText(latest.value) : Json();
        if (!exact.is_null())
            begin += R"(,"text":)" + QByteArray::fromStdString(exact.dump());
        if (m_index.variable(number).writable)
            begin += R"(,"revision":")" + revisionOf(m_index, number) + '"';
    }
    const VariablePlace& place = m_index.place(number);
    const qint64 age = m_lines.ageMs(place.line, place.variable);
    return begin + R"(,"ageMs":)" + (age < 0 ? QByteArray("null") : QByteArray::number(age)) + '}';
}

void WebValues::reset()
{
    m_texts.clear();
    m_texts.resize(m_index.size());
}

} // namespace micro850::gateway
