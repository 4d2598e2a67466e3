#include "Router.h"

#include "Problem.h"

#include <algorithm>

namespace micro850::gateway {

namespace {

QStringList partsOf(const QString& path)
{
    QStringList parts = path.split('/');
    parts.removeAll(QString());
    return parts;
}

bool isPlaceholder(const QString& part)
{
    return part.startsWith('{');
}

bool matches(const QStringList& pattern, const QStringList& path)
{
    if (pattern.size() != path.size())
        return false;
    for (int i = 0; i < path.size(); ++i) {
        if (isPlaceholder(pattern.at(i)) ? path.at(i).isEmpty() : pattern.at(i) != path.at(i))
            return false;
    }
    return true;
}

/// Answers with the headers alone. The server leaves the body of an answer to HEAD out, but tells
/// its length.
class HeadExchange : public HttpExchange
{
public:
    explicit HeadExchange(HttpExchangePointer exchange) : m_exchange(std::move(exchange)) {}

    const HttpRequest& request() const override { return m_exchange->request(); }
    void answer(HttpResponse response) override
    {
        response.stream.reset();
        m_exchange->answer(std::move(response));
    }
    bool isWanted() const override { return m_exchange->isWanted(); }

private:
    HttpExchangePointer m_exchange;
};

} // namespace

void Router::add(const char* method, const char* pattern, Handler handler)
{
    m_routes.append({method, partsOf(QString::fromLatin1(pattern)), std::move(handler)});
}

void Router::route(const HttpExchangePointer& exchange, const Caller& caller) const
{
    const HttpRequest& request = exchange->request();
    const bool isHead = request.method == "HEAD";
    const QByteArray wanted = isHead ? QByteArray("GET") : request.method;
    QByteArrayList allowed;
    for (const Route& route : m_routes) {
        if (!matches(route.pattern, request.path))
            continue;
        if (route.method == wanted)
            return route.handler(isHead ? std::make_shared<HeadExchange>(exchange) : exchange,
                                 caller);
        allowed.append(route.method);
        if (route.method == "GET")
            allowed.append("HEAD");
    }
    if (allowed.isEmpty())
        return exchange->answer(problem(404, "", "there is no such page"));
    allowed.append("OPTIONS");
    HttpResponse response;
    if (request.method == "OPTIONS")
        response.status = 204;
    else
        response = problem(405, "",
                           "this address has only the methods " + allowed.join(", ").toStdString());
    response.headers.append(HttpHeader{"Allow", allowed.join(", ")});
    exchange->answer(std::move(response));
}

QStringList Router::routes() const
{
    QStringList routes;
    for (const Route& route : m_routes)
        routes.append(QString::fromLatin1(route.method) + QStringLiteral(" /") +
                      route.pattern.join('/'));
    return routes;
}

} // namespace micro850::gateway
