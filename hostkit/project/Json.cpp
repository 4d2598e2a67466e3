#include "Json.h"

#include "Elements.h"

#include <cmath>

namespace micro850::host {

Json jsonOf(const QString& text)
{
    return Json(text.toStdString());
}

Json jsonOf(const CipValue& value)
{
    switch (value.kind()) {
    case CipKind::Boolean:
        return Json(value.boolean());
    case CipKind::Signed:
        return Json(value.signedNumber());
    case CipKind::Unsigned:
    case CipKind::Bits:
        return Json(value.unsignedNumber());
    case CipKind::Real:
        if (std::isfinite(value.number()))
            return Json(value.number());
        break;
    case CipKind::String:
        break;
    }
    return jsonOf(valueText(value));
}

Json jsonOf(const QVector<CipValue>& values)
{
    if (values.size() == 1)
        return jsonOf(values.first());
    Json all = Json::array();
    for (const CipValue& value : values)
        all.push_back(jsonOf(value));
    return all;
}

} // namespace micro850::host
