#include "gateway_fixture.h"
#include "http_client.h"
#include "program_fixture.h"
#include "test_port.h"

#include <QtCore/QFile>
#include <QtCore/QRegularExpression>
#include <QtCore/QUrl>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <set>

// The numbers of the gateway as a monitoring system gets them.

namespace {

const QString kSource = QStringLiteral(MICRO850_SOURCE_DIR "/");

QString textOfFile(const QString& path)
{
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << path.toStdString();
    return QString::fromUtf8(file.readAll());
}

// The names that the first group of the pattern finds.
std::set<QString> found(const QString& text, const char* pattern)
{
    std::set<QString> names;
    QRegularExpressionMatchIterator match =
        QRegularExpression(QLatin1String(pattern), QRegularExpression::MultilineOption)
            .globalMatch(text);
    while (match.hasNext())
        names.insert(match.next().captured(1));
    return names;
}

Result promtool(const QStringList& arguments)
{
    return runProgram(QStringLiteral("promtool"), arguments);
}

/// Debian's Prometheus, which scrapes the gateway once a second with the example configuration.
class Prometheus
{
public:
    Prometheus(const QString& folder, int gatewayPort, const QString& tokenFile)
    {
        QString settings = textOfFile(kSource + QStringLiteral("examples/prometheus.yml"));
        EXPECT_TRUE(settings.contains("scrape_interval: 15s"));
        EXPECT_TRUE(settings.contains("127.0.0.1:8850"));
        EXPECT_TRUE(settings.contains("    # authorization:\n    #   credentials_file: "));
        settings.replace("interval: 15s", "interval: 1s");
        settings.replace("127.0.0.1:8850", QStringLiteral("127.0.0.1:%1").arg(gatewayPort));
        settings.replace(
            "    # authorization:\n    #   credentials_file: /etc/prometheus/micro850.token",
            "    authorization:\n      credentials_file: " + tokenFile);
        write(folder + QStringLiteral("/prometheus.yml"), settings);
        EXPECT_TRUE(QFile::copy(kSource + QStringLiteral("examples/prometheus-alerts.yml"),
                                folder + QStringLiteral("/prometheus-alerts.yml")));
        m_process.setProcessChannelMode(QProcess::MergedChannels);
        m_process.start(QStringLiteral("prometheus"),
                        {QStringLiteral("--config.file=%1/prometheus.yml").arg(folder),
                         QStringLiteral("--storage.tsdb.path=%1/prometheus").arg(folder),
                         QStringLiteral("--web.listen-address=127.0.0.1:%1").arg(m_port.number())});
        EXPECT_TRUE(waitUntil([this] {
            return httpGet(m_port.number(), "/-/ready").status == 200;
        })) << m_process.readAll().toStdString();
    }
    ~Prometheus()
    {
        m_process.kill();
        m_process.waitForFinished();
    }

    /// The value of an expression; none when it has no single one now.
    std::optional<double> value(const QString& expression) const
    {
        const QByteArray query = QUrl::toPercentEncoding(expression);
        const HttpReply reply = httpGet(m_port.number(), "/api/v1/query?query=" + query);
        const auto answer = nlohmann::json::parse(reply.body.toStdString(), nullptr, false);
        EXPECT_EQ(reply.status, 200) << reply.body.toStdString();
        if (reply.status != 200 || answer["data"]["result"].size() != 1)
            return std::nullopt;
        return std::stod(answer["data"]["result"][0]["value"][1].get<std::string>());
    }
    /// Waits for the value.
    bool hasValue(const QString& expression, double expected) const
    {
        const bool has = waitUntil([&] { return value(expression) == expected; });
        EXPECT_TRUE(has) << expression.toStdString() << " is " << value(expression).value_or(-12345)
                         << ", not " << expected;
        return has;
    }

private:
    static void write(const QString& path, const QString& text)
    {
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(text.toUtf8());
    }

    TestPort m_port;
    QProcess m_process;
};

/// A line with a controller that answers, and one whose device is missing.
class GatewayMetrics : public GatewayTest
{
protected:
    GatewayMetrics()
    {
        addLine(QStringLiteral("press"), R"({"name": "Speed", "type": "INT", "value": 1234},
                                            {"name": "Level", "type": "REAL", "value": 1})",
                "");
        file(QStringLiteral("press.json"), R"({"port": {"device": ")" +
                                               device(QStringLiteral("press")).toStdString() +
                                               R"(", "timeoutMs": 300},
                    "stations": [{"number": 1, "name": "a\"}\\ 1 <img onerror=x>"}],
                    "variables": [{"tag": "Speed", "intervalMs": 20}, {"tag": "Level", "intervalMs": 20}]})");
        addLineOnly(QStringLiteral("oven"), R"({"name": "Heat", "type": "INT"})",
                    R"({"tag": "Heat"})");
    }
    void start(const std::string& web)
    {
        setConfigurationKeys(R"("web": {"port": )" + std::to_string(m_port.number()) + web + "},");
        startGateway();
        ASSERT_TRUE(waitUntil([this] { return httpGet(m_port.number(), "/readyz").status == 200; }))
            << log().toStdString();
    }
    int port() const { return m_port.number(); }
    QByteArray metrics(const HttpClient::Headers& headers = {}) const
    {
        const HttpReply reply = httpGet(m_port.number(), "/metrics", headers);
        EXPECT_EQ(reply.status, 200);
        EXPECT_EQ(reply.header("content-type"), "text/plain; version=0.0.4; charset=utf-8");
        return reply.body;
    }
    bool waitForMetric(const QByteArray& line) const
    {
        return waitUntil([&] { return metrics().contains("\n" + line + "\n"); });
    }

private:
    TestPort m_port;
};

} // namespace

TEST_F(GatewayMetrics, SatisfyTheCheckerOfTheMonitoringSystem)
{
    start("");
    EXPECT_EQ(httpGet(port(), "/healthz").status, 200);
    EXPECT_TRUE(waitForMetric(R"(micro850_variables{line="press",quality="good"} 2)"));
    const QByteArray text = metrics();
    const QString path = file(QStringLiteral("metrics.txt"), text.toStdString());
    const Result checked = runProgram("bash", {"-c", "promtool check metrics <\"$0\"", path});
    EXPECT_EQ(checked.status, 0);
    EXPECT_EQ(checked.out + checked.err, "") << text.toStdString();
    EXPECT_TRUE(text.contains("\nmicro850_line_up{line=\"oven\"} 0\n"));
    EXPECT_TRUE(text.contains("\nmicro850_worker_up{line=\"oven\"} 1\n"));
    EXPECT_TRUE(text.contains(R"(,name="a\"}\\ 1 <img onerror=x>"} 1)")) << text.toStdString();
}

// Beyond this machine the numbers need the token; whether it runs does not.
TEST_F(GatewayMetrics, AreScrapedAndCountOnOverTheEndOfAWorker)
{
    const QString tokenFile = path(QStringLiteral("token"));
    ASSERT_EQ(runProgram(MICRO850_GATEWAY, {"token", tokenFile}).status, 0);
    start(R"(, "address": "0.0.0.0", "tokenFile": ")" + tokenFile.toStdString() + "\"");
    EXPECT_EQ(httpGet(port(), "/metrics").status, 401);
    EXPECT_EQ(httpGet(port(), "/healthz").status, 200);

    const Prometheus prometheus(path(QStringLiteral(".")), port(), tokenFile);
    ASSERT_TRUE(prometheus.hasValue(R"(up{job="micro850-gateway"})", 1));
    prometheus.hasValue(R"(micro850_line_up{line="press"})", 1);
    prometheus.hasValue(R"(micro850_line_up{line="oven"})", 0);
    prometheus.hasValue(R"(micro850_station_connected{line="press",station="1"})", 1);
    prometheus.hasValue(R"(micro850_variables{line="press",quality="good"})", 2);
    prometheus.hasValue("count(micro850_build_info{version=\"" MICRO850_VERSION "\"})", 1);
    prometheus.hasValue(R"(count(micro850_station_info{name="a\"}\\ 1 <img onerror=x>"}))", 1);
    // The rules that are installed look at it.
    prometheus.hasValue(R"(count(ALERTS{alertname="LineDown",line="oven"}))", 1);
    prometheus.hasValue(R"(absent(ALERTS{line="press"}))", 1);

    const qint64 worker = workerOf(QStringLiteral("press"));
    ASSERT_GT(worker, 0);
    const QString requests = QStringLiteral(R"(micro850_station_requests_total{line="press"})");
    const double before = prometheus.value(requests).value_or(0);
    EXPECT_GT(before, 0);
    ::kill(static_cast<pid_t>(worker), SIGKILL);
    prometheus.hasValue(R"(micro850_worker_starts_total{line="press"})", 2);
    // The next worker has counted more, and nothing was taken back meanwhile.
    EXPECT_TRUE(waitUntil([&] { return prometheus.value(requests).value_or(0) > before + 20; }));
    for (const char* const name :
         {"micro850_station_requests_total", "micro850_station_received_bytes_total",
          "micro850_value_changes_total", "micro850_line_round_trip_seconds_count",
          "micro850_line_round_trip_seconds_sum", "micro850_line_round_trip_seconds_bucket"})
        prometheus.hasValue(QStringLiteral("sum(resets(%1[10m]))").arg(name), 0);
    prometheus.hasValue(R"(micro850_line_up{line="press"})", 1);
    EXPECT_GT(
        prometheus
            .value(QStringLiteral(
                R"(histogram_quantile(0.99, micro850_line_round_trip_seconds_bucket{line="press"}))"))
            .value_or(0),
        0);
}

TEST(PrometheusAlerts, FireWhenTheyAreToFire)
{
    const Result tested =
        promtool({"test", "rules", kSource + "tests/programs/prometheus_alerts.test.yml"});
    EXPECT_EQ(tested.status, 0) << tested.out << tested.err;
    const QString tests = textOfFile(kSource + "tests/programs/prometheus_alerts.test.yml");
    const QString rules = textOfFile(kSource + "examples/prometheus-alerts.yml");
    EXPECT_EQ(found(tests, "^ +alertname: (\\w+)$"), found(rules, "^ +- alert: (\\w+)$"));
}

TEST(PrometheusAlerts, AreExplainedAndUseMetricsThatThereAre)
{
    const QString rules = textOfFile(kSource + "examples/prometheus-alerts.yml");
    const QString document = textOfFile(kSource + "docs/monitoring.md");
    std::set<QString> explained;
    for (const QString& row : found(document, "^\\| (`[A-Z][^|]*`) \\|")) {
        const std::set<QString> names = found(row, "`(\\w+)`");
        explained.insert(names.begin(), names.end());
    }
    EXPECT_EQ(explained, found(rules, "^ +- alert: (\\w+)$"));
    const std::set<QString> described = found(document, "^\\| `([a-z0-9_]+)` ");
    for (QString name : found(rules, "\\b(micro850_\\w+)")) {
        name.remove(QRegularExpression("_bucket$"));
        EXPECT_TRUE(described.count(name)) << name.toStdString();
    }
}

TEST(PrometheusExample, IsValid)
{
    const Result checked = promtool({"check", "config", kSource + "examples/prometheus.yml"});
    EXPECT_EQ(checked.status, 0) << checked.out << checked.err;
}
