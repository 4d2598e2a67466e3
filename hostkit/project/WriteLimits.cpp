#include "WriteLimits.h"

#include "ExactNumbers.h"
#include "Scaling.h"

namespace micro850::host {

std::string limitsText(const Variable& variable)
{
    std::string text;
    if (variable.minimum)
        text += "minimum " + variable.minimum->text();
    if (variable.maximum)
        text += (text.empty() ? "maximum " : ", maximum ") + variable.maximum->text();
    return text;
}

// Bits, true, false and dates as the number that the controller has. A REAL that shows 0.1 is not
// above the limit 0.1, although it is the larger number.
CipValue limitedNumber(const CipType& type, const CipValue& value, const Variable& variable)
{
    switch (value.kind()) {
    case CipKind::Boolean:
        return CipValue::ofUnsigned(value.boolean() ? 1 : 0);
    case CipKind::Bits:
        return CipValue::ofUnsigned(value.unsignedNumber());
    default:
        break;
    }
    const CipValue shown = Scaling(variable).shown(type, value);
    if (shown.kind() != CipKind::Real)
        return shown.isNumber() ? shown : value;
    return CipValue::ofReal(QString::fromStdString(shown.text()).toDouble());
}

std::string limitsProblem(const CipValue& number, const std::string& text, const Variable& variable)
{
    if (isWithinLimits(number, variable.minimum, variable.maximum))
        return std::string();
    return text + " is outside its limits (" + limitsText(variable) + ')';
}

} // namespace micro850::host
