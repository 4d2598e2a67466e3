#include "RequestKeys.h"

#include "Protocol.h"
#include "RequestError.h"
#include "VisibleText.h"

namespace micro850::gateway {

namespace {

[[noreturn]] void fail(const QString& key, const std::string& text)
{
    const int kLongest = 100;
    throw RequestError(errorcode::kBadRequest, key.left(kLongest).toStdString() + ": " + text);
}

} // namespace

void expectKeys(const HttpRequest& request, const QStringList& keys)
{
    for (auto found = request.query.constBegin(); found != request.query.constEnd(); ++found) {
        if (!keys.contains(found.key()))
            fail(found.key(), "is not known here (known: " + keys.join(", ").toStdString() + ')');
        if (found->size() > 1)
            fail(found.key(), "is given twice");
    }
}

qint64 numberOf(const HttpRequest& request, const QString& key, qint64 least, qint64 most,
                qint64 absent)
{
    if (!request.query.contains(key))
        return absent;
    const QString text = request.queryText(key);
    bool isNumber = false;
    const qint64 number = text.toLongLong(&isNumber);
    if (!isNumber || number < least || number > most)
        fail(key, inQuotes(text.toStdString()) + " is no number from " + std::to_string(least) +
                      " to " + std::to_string(most));
    return number;
}

std::optional<qint64> timeOf(const HttpRequest& request, const QString& key)
{
    if (!request.query.contains(key))
        return std::nullopt;
    const QString text = request.queryText(key);
    const QString kWholeSeconds = QStringLiteral("0000-00-00T00:00:00Z");
    std::optional<qint64> time =
        host::timeOf(text.size() == kWholeSeconds.size() && text.endsWith('Z')
                         ? text.left(text.size() - 1) + QStringLiteral(".000Z")
                         : text);
    bool isNumber = false;
    const qint64 number = text.toLongLong(&isNumber);
    const qint64 kLatest = 253402300800000; // the year 10000
    if (!time && isNumber && number >= 0 && number < kLatest)
        time = number;
    if (!time)
        fail(key, inQuotes(text.toStdString()) +
                      " is no time such as 2026-11-22T13:30:00.125Z, nor milliseconds since 1970");
    return time;
}

} // namespace micro850::gateway
