#ifndef MICRO850_GATEWAY_COUNTED_H
#define MICRO850_GATEWAY_COUNTED_H

#include <QtCore/QString>

namespace micro850::gateway {

/// "1 line", "2 lines".
inline QString counted(qint64 count, const char* noun)
{
    return QString::number(count) + QLatin1Char(' ') + QLatin1String(noun) +
           QLatin1String(count == 1 ? "" : "s");
}

} // namespace micro850::gateway

#endif
