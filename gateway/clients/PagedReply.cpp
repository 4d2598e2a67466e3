#include "PagedReply.h"

#include "Message.h"

namespace micro850::gateway {

QByteArray PagedReply::take(int most)
{
    QByteArray line = host::lineOf(host::replyTo(id, reply));
    line.chop(2); // the closing bracket and the line feed
    line.append(",\"").append(key).append("\":[");
    const int first = taken;
    while (taken < size && (taken == first || line.size() < most)) {
        if (taken > first)
            line += ',';
        line += item(taken++);
    }
    done = taken == size;
    line += ']';
    if (!done)
        return line += ",\"more\":true}\n";
    if (!last.is_object() || last.empty())
        return line += "}\n";
    return line += ',' + host::lineOf(last).mid(1);
}

} // namespace micro850::gateway
