#include "VariableObject.h"

namespace micro850::gateway {

QByteArray revisionOf(const VariableIndex& index, int number)
{
    const int kDigits = 16;
    return QByteArray::number(index.identity(number), 16).rightJustified(kDigits, '0');
}

host::Json variableObject(const LineSettings& line, const host::Variable& variable)
{
    host::Json object = {{"line", line.name.toStdString()}, {"name", variable.name.toStdString()},
                         {"station", variable.station},     {"tag", variable.tag.toStdString()},
                         {"element", variable.element},     {"length", variable.length}};
    if (variable.type)
        object["type"] = variable.type->name;
    if (!variable.unit.isEmpty())
        object["unit"] = variable.unit.toStdString();
    if (variable.isScaled()) {
        object["gain"] = variable.gain;
        object["offset"] = variable.offset;
    }
    if (variable.writable)
        object["writable"] = true;
    if (variable.minimum)
        object["minimum"] = host::jsonOf(*variable.minimum);
    if (variable.maximum)
        object["maximum"] = host::jsonOf(*variable.maximum);
    if (variable.writesPerMinute)
        object["writesPerMinute"] = *variable.writesPerMinute;
    if (variable.intervalMs)
        object["intervalMs"] = *variable.intervalMs;
    return object;
}

} // namespace micro850::gateway
