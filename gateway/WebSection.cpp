#include "WebSection.h"

#include "IpAddress.h"

#include <QtCore/QRegularExpression>

namespace micro850::gateway {

namespace {

const int kLongestHost = 253;
const int kMostNames = 64;

QString textOf(const JsonNode& node)
{
    return QString::fromStdString(node.text());
}

QString addressOf(const JsonNode& node, const char* remedy)
{
    const QString address = plainAddress(textOf(node));
    if (address.isEmpty())
        node.fail(node.found() + " is not an IPv4 or IPv6 address (" + remedy + ')');
    return address;
}

// As browsers send it: no port, no scheme, IPv6 without brackets here.
QString hostOf(const JsonNode& node)
{
    static const QRegularExpression form(QStringLiteral("\\A[A-Za-z0-9_][A-Za-z0-9_.-]*\\z"));
    const QString host = textOf(node);
    const QString address = plainAddress(host);
    if (!address.isEmpty())
        return address;
    if (!form.match(host).hasMatch() || host.size() > kLongestHost)
        node.fail(node.found() + R"( is not the name or the address of a host (such as )"
                                 R"("panel7.plant.example", without scheme and port))");
    QString name = host.toLower();
    if (name.endsWith(QLatin1Char('.')))
        name.chop(1);
    return name;
}

template<typename Read>
void readTexts(const JsonNode& section, const char* key, QStringList& texts, Mistakes& mistakes,
               Read read)
{
    if (!section.has(key))
        return;
    mistakes.runs([&] {
        const JsonNode list = section.at(key);
        const JsonNode::Elements elements = list.elements();
        if (elements.size() > std::size_t(kMostNames))
            list.fail("lists " + std::to_string(elements.size()) + " (at most " +
                      std::to_string(kMostNames) + ')');
        for (const JsonNode& element : elements)
            mistakes.runs([&] { texts.append(read(element)); });
    });
}

void readFile(const JsonNode& section, const char* key, const QString& folder, QString& file,
              Mistakes& mistakes)
{
    mistakes.runs([&] {
        if (section.has(key))
            file = pathOf(section.at(key), folder);
    });
}

void readNumber(const JsonNode& section, const char* key, int least, int most, int& number,
                Mistakes& mistakes)
{
    mistakes.runs([&] { number = static_cast<int>(section.integer(key, least, most, number)); });
}

// Each is a mistake of its own, so that one correction is enough.
void checkAccess(const JsonNode& node, const WebSettings& web, bool isAddress, Mistakes& mistakes)
{
    const char* const remedy =
        R"( (make one with "micro850-gateway token FILE", and name it in "tokenFile"))";
    mistakes.runs([&] {
        if (node.has("certificate") != node.has("key"))
            node.fail(R"("certificate" and "key" go together (add the other one))");
    });
    mistakes.runs([&] {
        if (node.has("tokenFile") || !isAddress || !web.isOpen())
            return;
        const std::string address = web.http.address.toStdString();
        if (node.has("proxies") && !web.http.proxies.isEmpty())
            node.fail("behind a proxy others can connect, so a token is needed" +
                      std::string(remedy));
        node.fail("at " + address + " others can connect, so a token is needed" + remedy);
    });
    mistakes.runs([&] {
        if (web.takesWrites && !node.has("tokenFile"))
            node.at("writes").fail("writing needs a token" + std::string(remedy));
    });
}

void readSection(const JsonNode& node, const QString& folder, WebSettings& web, Mistakes& mistakes)
{
    web.isOn = true;
    mistakes.runs([&] {
        node.expectKeys({"address", "port", "tokenFile", "writes", "hosts", "certificate", "key",
                         "proxies", "connections", "connectionsPerAddress"});
    });
    bool isAddress = true;
    if (node.has("address"))
        isAddress = mistakes.runs([&] {
            web.http.address =
                addressOf(node.at("address"), R"("127.0.0.1" for this machine alone, "0.0.0.0" )"
                                              R"(for all, without the port)");
        });
    readNumber(node, "port", 0, 65535, web.http.port, mistakes);
    readFile(node, "tokenFile", folder, web.tokenFile, mistakes);
    mistakes.runs([&] { web.takesWrites = node.boolean("writes", false); });
    readTexts(node, "hosts", web.hosts, mistakes, hostOf);
    readFile(node, "certificate", folder, web.http.certificateFile, mistakes);
    readFile(node, "key", folder, web.http.keyFile, mistakes);
    readTexts(node, "proxies", web.http.proxies, mistakes, [](const JsonNode& proxy) {
        return addressOf(proxy, "of the proxy's machine, \"127.0.0.1\" when it runs here");
    });
    readNumber(node, "connections", 1, 1000, web.http.mostConnections, mistakes);
    readNumber(node, "connectionsPerAddress", 1, 1000, web.http.mostPerAddress, mistakes);
    checkAccess(node, web, isAddress, mistakes);
}

} // namespace

void readWeb(const JsonNode& root, const QString& folder, WebSettings& web, Mistakes& mistakes)
{
    if (!root.has("web"))
        return;
    mistakes.runs([&] {
        const JsonNode node = root.at("web");
        expectObject(node, " (use {} for this machine alone)");
        readSection(node, folder, web, mistakes);
    });
}

} // namespace micro850::gateway
