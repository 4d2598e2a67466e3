#include "Message.h"

#include "VisibleText.h"

namespace micro850::host {

QByteArray lineOf(const Json& message)
{
    const std::string text = message.dump(-1, ' ', false, Json::error_handler_t::replace);
    QByteArray line(text.data(), static_cast<int>(text.size()));
    line.append('\n');
    return line;
}

JsonNode messageIn(const QByteArray& line, const std::string& name)
{
    JsonNode message = JsonNode::fromText(line.toStdString(), name);
    if (!message.value().is_object())
        message.fail(message.found() + " is not an object { ... }");
    return message;
}

Json jsonOf(const JsonNode& node)
{
    return Json(node.value());
}

QByteArray bytesOf(const QString& hexadecimal, const std::string& key)
{
    const QByteArray bytes = QByteArray::fromHex(hexadecimal.toLatin1());
    if (QString::fromLatin1(bytes.toHex()) != hexadecimal.toLower())
        throw UserError(key + ": " + inQuotes(hexadecimal.toStdString()) +
                        " is no hexadecimal text, two digits for each byte");
    return bytes;
}

Json replyTo(const Json& id, const char* name)
{
    return {{"id", id}, {"reply", name}};
}

Json errorReply(const Json& id, const char* code, const std::string& text, int element)
{
    Json error = {{"code", code}, {"text", text}};
    if (element >= 0)
        error["element"] = element;
    return {{"id", id}, {"error", std::move(error)}};
}

Json eventNamed(const char* name)
{
    return {{"event", name}};
}

} // namespace micro850::host
