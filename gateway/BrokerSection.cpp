#include "BrokerSection.h"

#include "Message.h"
#include "Visible.h"

#include <QtCore/QCryptographicHash>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QRegularExpression>
#include <QtCore/QSysInfo>

#include <algorithm>
#include <initializer_list>

namespace micro850::gateway {

namespace {

const int kLongestPrefix = 200;
const int kLongestName = 128;
const int kLongestHost = 253;
const int kPlainPort = 1883;
const int kEncryptedPort = 8883;
const int kLeastInterval = 100;
const int kMillisecondsOfDay = 86400000;

QString textOf(const JsonNode& node)
{
    return QString::fromStdString(node.text());
}

struct Remedy
{
    const char* key;
    const char* text;
};

// For keys that are no slip of the finger, but the words of other programs.
void explain(const JsonNode& node, std::initializer_list<Remedy> remedies)
{
    for (const Remedy& remedy : remedies) {
        if (node.has(remedy.key))
            node.fail("unknown key \"" + std::string(remedy.key) + "\" (" + remedy.text + ')');
    }
}

// Other characters would split a topic or match several.
bool isLevel(const QString& text)
{
    return !text.isEmpty() && host::visible(text) == text &&
           std::none_of(text.begin(), text.end(),
                        [](QChar c) { return c == '/' || c == '+' || c == '#'; });
}

QString prefixOf(const JsonNode& node)
{
    const QString prefix = textOf(node);
    const QStringList levels = prefix.split('/');
    if (prefix.toUtf8().size() > kLongestPrefix || prefix.startsWith('$') ||
        !std::all_of(levels.begin(), levels.end(), isLevel))
        node.fail(
            node.found() +
            R"( is not the beginning of topics (levels with "/" between them, such as )"
            R"("plant/hall2", without "+", "#", a "$" first and control characters, at most )" +
            std::to_string(kLongestPrefix) + " bytes)");
    if (levels.first() == QLatin1String("spBv1.0"))
        node.fail(node.found() + " is where Sparkplug has its topics (choose another prefix)");
    return prefix;
}

// Of a group, an edge node or a host.
QString levelOf(const JsonNode& node)
{
    const QString text = textOf(node);
    if (!isLevel(text) || text.toUtf8().size() > kLongestName)
        node.fail(node.found() + " is not a name for one level of a topic (1 to " +
                  std::to_string(kLongestName) +
                  R"( bytes without "/", "+", "#" and control characters))");
    return text;
}

QString clientIdOf(const JsonNode& node)
{
    const QString id = textOf(node);
    if (id.isEmpty() || host::visible(id) != id || id.toUtf8().size() > kLongestName)
        node.fail(node.found() + " is not an identifier of a client (1 to " +
                  std::to_string(kLongestName) + " bytes without control characters)");
    return id;
}

QString hostOf(const JsonNode& node)
{
    static const QRegularExpression form(
        QStringLiteral("\\A([A-Za-z0-9_][A-Za-z0-9_.-]*|[0-9A-Fa-f.]*:[0-9A-Fa-f.]*:[0-9A-Fa-f:.]*"
                       "(%[A-Za-z0-9_.-]+)?)\\z"));
    const QString host = textOf(node);
    if (!form.match(host).hasMatch() || host.size() > kLongestHost)
        node.fail(node.found() + R"( is not the name or the address of a host (such as )"
                                 R"("broker.plant.example" or "192.168.0.10", with the port in )"
                                 R"("port"))");
    return host;
}

QByteArray machineId()
{
    QFile file(QStringLiteral("/etc/machine-id"));
    const qint64 kLongest = 64;
    return file.open(QIODevice::ReadOnly) ? file.read(kLongest).trimmed() : QByteArray();
}

// Two machines, and two configurations of one machine, have different ones; a restart does not
// change it.
QString defaultClientId(const QString& kind, const QString& queueFile)
{
    static const QRegularExpression others(QStringLiteral("[^A-Za-z0-9-]"));
    const int kMostOfHost = 32;
    const int kDigits = 8;
    const QByteArray own = machineId() + ' ' + kind.toUtf8() + ' ' + queueFile.toUtf8();
    const QByteArray digest = QCryptographicHash::hash(own, QCryptographicHash::Sha256).toHex();
    return QStringLiteral("micro850-%1-%2-%3")
        .arg(QSysInfo::machineHostName().remove(others).left(kMostOfHost), kind,
             QString::fromLatin1(digest.left(kDigits)));
}

/// A section: what both have.
class Section
{
public:
    Section(const JsonNode& node, const QString& folder, Mistakes& mistakes)
        : m_node(node), m_folder(folder), m_mistakes(mistakes)
    {
    }

    void readBroker(const char* kind, BrokerAddress& broker, DeliveryQueueSettings& queue)
    {
        m_mistakes.runs([&] { readAddress(m_node.at("broker"), broker); });
        m_mistakes.runs([&] { readQueue(m_node.at("queue"), queue); });
        if (broker.clientId.isEmpty())
            broker.clientId = defaultClientId(QString::fromLatin1(kind), queue.file);
    }

private:
    void readNumber(const JsonNode& node, const char* key, int least, int most, int& number)
    {
        m_mistakes.runs([&] { number = static_cast<int>(node.integer(key, least, most, number)); });
    }
    void readFile(const JsonNode& node, const char* key, QString& file)
    {
        m_mistakes.runs([&] {
            if (node.has(key))
                file = pathOf(node.at(key), m_folder);
        });
    }
    void readAddress(const JsonNode& node, BrokerAddress& broker);
    void readTls(const JsonNode& node, BrokerAddress& broker);
    void readQueue(const JsonNode& node, DeliveryQueueSettings& queue);

    const JsonNode& m_node;
    const QString m_folder;
    Mistakes& m_mistakes;
};

void Section::readAddress(const JsonNode& node, BrokerAddress& broker)
{
    expectObject(node, R"( (such as {"host": "broker.plant.example"}))");
    const char* const inFile = R"(it stands in the file that "credentials" names)";
    m_mistakes.runs([&] {
        explain(node, {{"user", inFile}, {"username", inFile}, {"password", inFile}});
        node.expectKeys({"host", "port", "clientId", "version", "keepAliveSeconds", "spreadMs",
                         "credentials", "tls"});
    });
    m_mistakes.runs([&] { broker.host = hostOf(node.at("host")); });
    m_mistakes.runs([&] {
        if (node.has("clientId"))
            broker.clientId = clientIdOf(node.at("clientId"));
    });
    m_mistakes.runs([&] {
        const std::string version = node.text("version", "5");
        if (version != "5" && version != "3.1.1")
            node.at("version").fail(node.at("version").found() +
                                    R"( is not a version of MQTT that is spoken ("5" or "3.1.1"))");
        broker.isVersion5 = version == "5";
    });
    readNumber(node, "keepAliveSeconds", kLeastKeepAlive, kMostKeepAlive, broker.keepAliveSeconds);
    readNumber(node, "spreadMs", 0, 600000, broker.spreadMs);
    readFile(node, "credentials", broker.credentialsFile);
    if (node.has("tls"))
        m_mistakes.runs([&] { readTls(node.at("tls"), broker); });
    broker.port = broker.isEncrypted ? kEncryptedPort : kPlainPort;
    readNumber(node, "port", 1, 65535, broker.port);
}

void Section::readTls(const JsonNode& node, BrokerAddress& broker)
{
    broker.isEncrypted = true;
    expectObject(node, " (use {} for the authorities of the system)");
    m_mistakes.runs([&] {
        const char* const authorities = "did you mean authorities?";
        explain(node, {{"ca", authorities},
                       {"cafile", authorities},
                       {"caFile", authorities},
                       {"cert", "did you mean certificate?"},
                       {"crl", "did you mean revoked?"}});
        node.expectKeys({"authorities", "certificate", "key", "revoked"});
    });
    readFile(node, "authorities", broker.authoritiesFile);
    readFile(node, "certificate", broker.certificateFile);
    readFile(node, "key", broker.keyFile);
    readFile(node, "revoked", broker.revokedFile);
    m_mistakes.runs([&] {
        if (node.has("certificate") != node.has("key"))
            node.fail(R"("certificate" and "key" go together (add the other one))");
    });
}

void Section::readQueue(const JsonNode& node, DeliveryQueueSettings& queue)
{
    expectObject(node, R"( (such as {"file": "/var/lib/micro850/mqtt.sqlite"}))");
    m_mistakes.runs([&] {
        node.expectKeys({"file", "keepMegabytes", "keepHours", "historyPerSecond"});
    });
    m_mistakes.runs([&] { queue.file = databasePathOf(node.at("file"), m_folder); });
    readNumber(node, "keepMegabytes", 1, 1000000, queue.keepMegabytes);
    readNumber(node, "keepHours", 1, 876000, queue.keepHours);
    readNumber(node, "historyPerSecond", 1, 100000, queue.historyPerSecond);
}

template<typename Settings> void readOrders(const JsonNode& node, Settings& settings)
{
    if (!node.has("orders"))
        return;
    const JsonNode orders = node.at("orders");
    expectObject(orders, " (use {} to take orders, leave the key out to take none)");
    orders.expectKeys({"maximumAgeMs"});
    settings.takesOrders = true;
    settings.maximumAgeMs =
        static_cast<int>(orders.integer("maximumAgeMs", 100, 3600000, settings.maximumAgeMs));
}

void readIntervals(const JsonNode& node, MqttSettings& settings, Mistakes& mistakes)
{
    mistakes.runs([&] {
        settings.intervalMs =
            static_cast<int>(node.integer("intervalMs", 0, kMillisecondsOfDay, 0));
        if (settings.intervalMs > 0 && settings.intervalMs < kLeastInterval)
            node.at("intervalMs")
                .fail(node.at("intervalMs").found() + " is not allowed (0, or " +
                      std::to_string(kLeastInterval) + " to " + std::to_string(kMillisecondsOfDay) +
                      ')');
    });
    mistakes.runs([&] {
        settings.statisticsSeconds = static_cast<int>(
            node.integer("statisticsSeconds", 1, 86400, settings.statisticsSeconds));
    });
}

void readMqtt(const JsonNode& node, const QString& folder, MqttSettings& settings,
              Mistakes& mistakes)
{
    mistakes.runs([&] {
        node.expectKeys({"broker", "prefix", "intervalMs", "statisticsSeconds", "queue", "orders",
                         "discovery"});
    });
    Section(node, folder, mistakes).readBroker("mqtt", settings.broker, settings.queue);
    mistakes.runs([&] { settings.prefix = prefixOf(node.at("prefix")); });
    readIntervals(node, settings, mistakes);
    mistakes.runs([&] { readOrders(node, settings); });
    mistakes.runs([&] {
        if (!node.has("discovery"))
            return;
        const JsonNode discovery = node.at("discovery");
        expectObject(discovery,
                     " (use {} to announce variables, leave the key out to announce none)");
        discovery.expectKeys({"prefix"});
        settings.discoveryPrefix = QStringLiteral("homeassistant");
        if (discovery.has("prefix"))
            settings.discoveryPrefix = prefixOf(discovery.at("prefix"));
        // PREFIX/status would be ours and Home Assistant's.
        if (settings.discoveryPrefix == settings.prefix)
            discovery.fail("Home Assistant and the values have the same prefix (choose another "
                           "\"prefix\" for the values)");
    });
}

void readSparkplug(const JsonNode& node, const QString& folder, SparkplugSettings& settings,
                   Mistakes& mistakes)
{
    mistakes.runs([&] {
        node.expectKeys({"broker", "queue", "group", "node", "primaryHost", "orders"});
    });
    Section(node, folder, mistakes).readBroker("sparkplug", settings.broker, settings.queue);
    mistakes.runs([&] { settings.group = levelOf(node.at("group")); });
    mistakes.runs([&] { settings.node = levelOf(node.at("node")); });
    mistakes.runs([&] {
        if (node.has("primaryHost"))
            settings.primaryHost = levelOf(node.at("primaryHost"));
    });
    mistakes.runs([&] { readOrders(node, settings); });
}

// A broker ends the connection of a client when another one with the same identifier comes.
void checkClientIds(const JsonNode& root, const BrokerSettings& brokers)
{
    if (brokers.mqtt && brokers.sparkplug &&
        brokers.mqtt->broker.clientId == brokers.sparkplug->broker.clientId)
        root.at("sparkplug")
            .at("broker")
            .at("clientId")
            .fail("\"" + brokers.mqtt->broker.clientId.toStdString() +
                  R"(" is that of "mqtt" too (each connection needs its own))");
}

} // namespace

void readBrokers(const JsonNode& root, const QString& folder, BrokerSettings& brokers,
                 Mistakes& mistakes)
{
    if (root.has("mqtt"))
        mistakes.runs([&] {
            expectObject(root.at("mqtt"));
            readMqtt(root.at("mqtt"), folder, brokers.mqtt.emplace(), mistakes);
        });
    if (root.has("sparkplug"))
        mistakes.runs([&] {
            expectObject(root.at("sparkplug"));
            readSparkplug(root.at("sparkplug"), folder, brokers.sparkplug.emplace(), mistakes);
        });
    mistakes.runs([&] { checkClientIds(root, brokers); });
}

} // namespace micro850::gateway
