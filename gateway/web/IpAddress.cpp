#include "IpAddress.h"

#include "PeerAddress.h"

namespace micro850::gateway {

QString plainAddress(const QString& text)
{
    if (text.contains(QChar(0)) || text.contains('%'))
        return {};
    return QString::fromLatin1(canonicalAddress(text.toUtf8()).value_or(QByteArray()));
}

bool isOfThisMachine(const QString& plain)
{
    return isLoopbackAddress(plain.toLatin1());
}

bool isAnyAddress(const QString& plain)
{
    return plain == QLatin1String("0.0.0.0") || plain == QLatin1String("::");
}

} // namespace micro850::gateway
