#include "ClientContext.h"

#include "Memory.h"
#include "Message.h"

namespace micro850::gateway {

Json statusOf(const ClientContext& context)
{
    Json reply = {{"reply", "status"}};
    reply["program"] = context.program.toStdString();
    const Duration uptime = context.clock.now() - context.startedAt;
    reply["uptimeS"] = std::chrono::duration_cast<std::chrono::seconds>(uptime).count();
    reply["memoryKb"] = memoryKb();
    reply["clients"] = context.clients;
    reply["lines"] = Json::array();
    for (int line = 0; line < context.lines.size(); ++line)
        reply["lines"].push_back(context.lines.status(line));
    reply["history"] = context.history.status();
    const Json delivery = context.delivery ? context.delivery() : Json::object();
    if (!delivery.empty())
        reply["delivery"] = delivery;
    const Json web = context.web ? context.web() : Json();
    if (!web.is_null())
        reply["web"] = web;
    return reply;
}

} // namespace micro850::gateway
