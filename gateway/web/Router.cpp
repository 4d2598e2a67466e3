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

} // namespace

void Router::add(const char* method, const char* pattern, Handler handler)
{
    m_routes.append({method, partsOf(QString::fromLatin1(pattern)), std::move(handler)});
}

void Router::route(const HttpExchangePointer& exchange, const Caller& caller) const
{
    const HttpRequest& request = exchange->request();
    // The server leaves out the body of an answer to HEAD.
    const QByteArray wanted = request.method == "HEAD" ? QByteArray("GET") : request.method;
    QByteArrayList allowed;
    for (const Route& route : m_routes) {
        if (!matches(route.pattern, request.path))
            continue;
        if (route.method == wanted)
            return route.handler(exchange, caller);
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
