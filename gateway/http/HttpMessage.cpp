#include "HttpMessage.h"

namespace micro850::gateway {

QByteArray HttpRequest::cookie(const QByteArray& name) const
{
    QByteArray found;
    bool isFound = false;
    for (const QByteArray& pair : header("cookie").split(';')) {
        const QByteArray trimmed = pair.trimmed();
        const int equals = trimmed.indexOf('=');
        if (equals < 0 || trimmed.left(equals) != name)
            continue;
        if (isFound)
            return QByteArray();
        found = trimmed.mid(equals + 1);
        isFound = true;
    }
    return found;
}

QString HttpRequest::queryText(const QString& key) const
{
    return query.value(key).value(0);
}

} // namespace micro850::gateway
