#include "Problem.h"

#include "Message.h"

#include <map>
#include <string>

namespace micro850::gateway {

namespace errorcode = host::errorcode;
using host::Json;

namespace {

const char* titleOf(int status)
{
    static const std::map<int, const char*> titles = {
        {400, "Bad Request"},       {401, "Unauthorized"},           {403, "Forbidden"},
        {404, "Not Found"},         {405, "Method Not Allowed"},     {409, "Conflict"},
        {413, "Content Too Large"}, {415, "Unsupported Media Type"}, {421, "Misdirected Request"},
        {429, "Too Many Requests"}, {500, "Internal Server Error"},  {503, "Service Unavailable"},
        {504, "Gateway Timeout"}};
    const auto found = titles.find(status);
    return found == titles.end() ? "Error" : found->second;
}

int statusOf(const std::string& code)
{
    static const std::map<std::string, int> statuses = {
        {errorcode::kBadRequest, 400},     {errorcode::kUnknownName, 404},
        {errorcode::kRefused, 409},        {errorcode::kUnreachable, 503},
        {errorcode::kUnknownOutcome, 504}, {errorcode::kNotAllowed, 403},
        {errorcode::kCancelled, 503},      {errorcode::kBusy, 503}};
    const auto found = statuses.find(code);
    return found == statuses.end() ? 500 : found->second;
}

} // namespace

QByteArray jsonText(const Json& value)
{
    QByteArray text = host::lineOf(value);
    text.chop(1);
    return text;
}

HttpResponse jsonResponse(const Json& body)
{
    HttpResponse response;
    response.type = "application/json";
    response.body = jsonText(body);
    response.headers.append(HttpHeader{"Cache-Control", "no-store"});
    return response;
}

HttpResponse problem(int status, const std::string& code, const std::string& detail)
{
    Json body = {{"type", "about:blank"},
                 {"title", titleOf(status)},
                 {"status", status},
                 {"detail", detail}};
    if (!code.empty())
        body["code"] = code;
    HttpResponse response = jsonResponse(body);
    response.status = status;
    response.type = "application/problem+json";
    return response;
}

HttpResponse problemOf(const Json& error)
{
    const std::string code = error.value("code", std::string());
    return problem(statusOf(code), code, error.value("text", std::string()));
}

} // namespace micro850::gateway
