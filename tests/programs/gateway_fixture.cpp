#include "gateway_fixture.h"

#include "program_fixture.h"

#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QThread>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstring>

bool waitUntil(const std::function<bool()>& condition)
{
    const unsigned long lookEveryMs = 5;
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.hasExpired(kGatewayLimitMs))
            return false;
        QThread::msleep(lookEveryMs);
    }
    return true;
}

GatewayClient::GatewayClient(const QString& socket)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const QByteArray path = QFile::encodeName(socket);
    EXPECT_LT(path.size(), static_cast<int>(sizeof address.sun_path));
    std::strncpy(address.sun_path, path.constData(), sizeof address.sun_path - 1);
    m_socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::close(m_socket);
        m_socket = -1;
        return;
    }
    m_greeting = message([](const Json& any) { return any.contains("protocol"); });
}

GatewayClient::~GatewayClient()
{
    if (m_socket >= 0)
        ::close(m_socket);
}

void GatewayClient::sendBytes(const std::string& bytes)
{
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t count =
            ::send(m_socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0)
            return;
        sent += static_cast<std::size_t>(count);
    }
}

int GatewayClient::send(Json request)
{
    request["id"] = ++m_lastId;
    sendBytes(request.dump() + '\n');
    return m_lastId;
}

// Takes in what came, or what comes within the time. False when nothing does, or at the end.
bool GatewayClient::receive(int limitMs)
{
    pollfd input = {m_socket, POLLIN, 0};
    if (m_socket < 0 || ::poll(&input, 1, limitMs) <= 0)
        return false;
    std::array<char, 65536> bytes = {};
    const ssize_t count = ::recv(m_socket, bytes.data(), bytes.size(), 0);
    if (count <= 0) {
        ::close(m_socket);
        m_socket = -1;
        return false;
    }
    m_bytes.append(bytes.data(), static_cast<std::size_t>(count));
    std::size_t start = 0;
    for (std::size_t end; (end = m_bytes.find('\n', start)) != std::string::npos; start = end + 1)
        m_messages.push_back(Json::parse(m_bytes.substr(start, end - start)));
    m_bytes.erase(0, start);
    return true;
}

// The number of messages when none is wanted.
std::size_t GatewayClient::find(const std::function<bool(const Json&)>& wanted)
{
    QElapsedTimer timer;
    timer.start();
    std::size_t looked = 0;
    do {
        for (; looked < m_messages.size(); ++looked) {
            if (wanted(m_messages[looked]))
                return looked;
        }
    } while (receive(static_cast<int>(kGatewayLimitMs - timer.elapsed())) &&
             !timer.hasExpired(kGatewayLimitMs));
    return m_messages.size();
}

GatewayClient::Json GatewayClient::take(std::size_t at)
{
    if (at >= m_messages.size())
        return Json();
    Json found = std::move(m_messages[at]);
    m_messages.erase(m_messages.begin() + static_cast<std::ptrdiff_t>(at));
    return found;
}

GatewayClient::Json GatewayClient::message(const std::function<bool(const Json&)>& wanted)
{
    return take(find(wanted));
}

GatewayClient::Json GatewayClient::reply(int id)
{
    const auto isReply = [id](const Json& any) { return any.contains("id") && any["id"] == id; };
    Json whole = message(isReply);
    while (whole.is_object() && whole.value("more", false)) {
        Json next = message(isReply);
        if (!next.is_object())
            return Json();
        for (const char* list : {"values", "variables"}) {
            if (!whole.contains(list) || !next.contains(list))
                continue;
            Json all = whole[list];
            for (const Json& item : next[list])
                all.push_back(item);
            next[list] = all;
        }
        whole = next;
    }
    return whole;
}

GatewayClient::Json GatewayClient::value(const std::string& name,
                                         const std::function<bool(const Json&)>& wanted)
{
    std::size_t place = 0;
    const std::size_t at = find([&](const Json& any) {
        if (any.value("event", "") != "values")
            return false;
        const Json& values = any["values"];
        for (place = 0; place < values.size(); ++place) {
            if (values[place]["name"] == name && wanted(values[place]))
                return true;
        }
        return false;
    });
    if (at >= m_messages.size())
        return Json();
    // The other values of the event may be waited for next.
    Json& values = m_messages[at]["values"];
    Json found = values[place];
    values.erase(place);
    if (values.empty())
        take(at);
    return found;
}

bool GatewayClient::waitForClose()
{
    QElapsedTimer timer;
    timer.start();
    while (m_socket >= 0 && !timer.hasExpired(kGatewayLimitMs))
        receive(static_cast<int>(kGatewayLimitMs - timer.elapsed()));
    return m_socket < 0;
}

GatewayTest::GatewayTest()
{
    EXPECT_TRUE(m_dir.isValid());
}

// Processes that a failed test stopped must not stay behind.
GatewayTest::~GatewayTest()
{
    if (m_gateway) {
        for (const qint64 worker : workers())
            ::kill(static_cast<pid_t>(worker), SIGCONT);
        signalGateway(SIGCONT);
        stopGateway();
    }
    for (const auto& line : m_lines)
        endSimulator(*line);
}

GatewayTest::Line* GatewayTest::lineNamed(const QString& name)
{
    for (const auto& line : m_lines) {
        if (line->name == name)
            return line.get();
    }
    ADD_FAILURE() << "no line " << name.toStdString();
    return nullptr;
}

QString GatewayTest::file(const QString& name, const std::string& text) const
{
    QFile out(path(name));
    EXPECT_TRUE(out.open(QIODevice::WriteOnly));
    out.write(text.c_str(), static_cast<qint64>(text.size()));
    return path(name);
}

QString GatewayTest::device(const QString& name) const
{
    return path(QStringLiteral("line-") + name);
}

void GatewayTest::addLineOnly(const QString& name, const std::string& tags,
                              const std::string& variables, const std::string& keys)
{
    file(name + QStringLiteral(".tags.json"), "{\"tags\": [" + tags + "]}");
    changeProject(name, variables, keys);
    m_lines.push_back(std::make_unique<Line>());
    m_lines.back()->name = name;
}

void GatewayTest::addLine(const QString& name, const std::string& tags,
                          const std::string& variables, const std::string& keys)
{
    addLineOnly(name, tags, variables, keys);
    startSimulator(name);
}

void GatewayTest::changeProject(const QString& name, const std::string& variables,
                                const std::string& keys)
{
    file(name + QStringLiteral(".json"), "{\"port\": {\"device\": \"" + device(name).toStdString() +
                                             "\", \"timeoutMs\": 300, \"retryLimit\": 2}, " + keys +
                                             " \"stations\": [{\"number\": 1}], \"variables\": [" +
                                             variables + "]}");
}

void GatewayTest::removeLine(const QString& name)
{
    for (auto line = m_lines.begin(); line != m_lines.end(); ++line) {
        if ((*line)->name != name)
            continue;
        endSimulator(**line);
        m_lines.erase(line);
        return;
    }
}

void GatewayTest::startSimulator(const QString& name, const QStringList& options)
{
    Line* line = lineNamed(name);
    ASSERT_TRUE(line);
    line->simulator = std::make_unique<QProcess>();
    line->simulator->start(
        QStringLiteral(MICRO850_SIM),
        QStringList{path(name + QStringLiteral(".tags.json")), "--quiet", "--link", device(name)} +
            options);
    ASSERT_TRUE(line->simulator->waitForReadyRead(kGatewayLimitMs))
        << line->simulator->readAllStandardError().toStdString();
    ASSERT_TRUE(QFile::exists(device(name)));
}

void GatewayTest::endSimulator(Line& line) const
{
    if (!line.simulator)
        return;
    ::kill(static_cast<pid_t>(line.simulator->processId()), SIGCONT);
    line.simulator->terminate();
    if (!line.simulator->waitForFinished(kGatewayLimitMs))
        line.simulator->kill();
    line.simulator.reset();
}

void GatewayTest::signalSimulator(const QString& name, int signal) const
{
    for (const auto& line : m_lines) {
        if (line->name == name && line->simulator)
            ::kill(static_cast<pid_t>(line->simulator->processId()), signal);
    }
}

void GatewayTest::killSimulator(const QString& name)
{
    Line* line = lineNamed(name);
    ASSERT_TRUE(line && line->simulator);
    line->simulator->kill();
    line->simulator->waitForFinished(kGatewayLimitMs);
    line->simulator.reset();
    QFile::remove(device(name)); // the simulator had no time to remove its link
}

QString GatewayTest::simulatorStatus(const QString& name)
{
    Line* line = lineNamed(name);
    if (!line || !line->simulator)
        return QStringLiteral("no simulator");
    return statusOf(*line->simulator, "status");
}

QString GatewayTest::configure()
{
    std::string lines;
    for (const auto& line : m_lines) {
        const std::string name = line->name.toStdString();
        lines += (lines.empty() ? "" : ", ");
        lines += "{\"name\": \"" + name + "\", \"project\": \"" + name + ".json\"}";
    }
    return file(QStringLiteral("gateway.json"), "{" + m_keys + "\"socket\": {\"path\": \"" +
                                                    socketPath().toStdString() +
                                                    "\"}, \"lines\": [" + lines + "]}");
}

void GatewayTest::startGateway(const QStringList& environment)
{
    const QString configuration = configure();
    m_log.clear();
    m_gateway = std::make_unique<QProcess>();
    m_gateway->setWorkingDirectory(m_dir.path());
    m_gateway->setEnvironment(QProcess::systemEnvironment() + environment);
    m_gateway->start(QStringLiteral(MICRO850_GATEWAY), {configuration});
    ASSERT_TRUE(waitForLog(QStringLiteral("serving"))) << log().toStdString();
}

bool GatewayTest::gatewayRuns() const
{
    return m_gateway && m_gateway->state() == QProcess::Running;
}

qint64 GatewayTest::gatewayPid() const
{
    return m_gateway ? m_gateway->processId() : 0;
}

void GatewayTest::signalGateway(int signal) const
{
    if (gatewayPid() > 0)
        ::kill(static_cast<pid_t>(gatewayPid()), signal);
}

int GatewayTest::stopGateway()
{
    if (!m_gateway)
        return -1;
    m_gateway->terminate();
    if (!m_gateway->waitForFinished(kGatewayLimitMs)) {
        ADD_FAILURE() << "the gateway does not end";
        m_gateway->kill();
        m_gateway->waitForFinished();
    }
    log();
    const int status = m_gateway->exitStatus() == QProcess::NormalExit ? m_gateway->exitCode() : -1;
    m_gateway.reset();
    return status;
}

void GatewayTest::killGateway()
{
    m_gateway->kill();
    m_gateway->waitForFinished(kGatewayLimitMs);
    m_gateway.reset();
}

void GatewayTest::reloadGateway()
{
    const auto ends = [this] {
        return log().count(QStringLiteral("the configuration was read again")) +
               log().count(QStringLiteral("the new configuration is refused"));
    };
    const int before = ends();
    signalGateway(SIGHUP);
    EXPECT_TRUE(waitUntil([&] { return ends() > before; })) << log().toStdString();
}

QString GatewayTest::log()
{
    if (m_gateway) {
        m_gateway->waitForReadyRead(0);
        m_log += QString::fromUtf8(m_gateway->readAllStandardError());
    }
    return m_log;
}

bool GatewayTest::waitForLog(const QString& text, int times)
{
    return waitUntil([&] {
               const bool ended = m_gateway && m_gateway->state() == QProcess::NotRunning;
               return log().count(text) >= times || ended;
           }) &&
           log().count(text) >= times;
}

std::vector<qint64> GatewayTest::workers() const
{
    std::vector<qint64> found;
    QFile children(QStringLiteral("/proc/%1/task/%1/children").arg(gatewayPid()));
    if (gatewayPid() > 0 && children.open(QIODevice::ReadOnly)) {
        for (const QByteArray& pid : children.readAll().simplified().split(' ')) {
            if (!pid.isEmpty())
                found.push_back(pid.toLongLong());
        }
    }
    return found;
}

qint64 GatewayTest::workerOf(const QString& name) const
{
    qint64 owner = 0;
    waitUntil([&] {
        const QString opened = QFileInfo(device(name)).canonicalFilePath();
        for (const qint64 pid : workers()) {
            const QDir descriptors(QStringLiteral("/proc/%1/fd").arg(pid));
            for (const QFileInfo& entry : descriptors.entryInfoList(QDir::System | QDir::Files)) {
                if (entry.symLinkTarget() == opened)
                    owner = pid;
            }
        }
        return owner != 0;
    });
    return owner;
}

std::unique_ptr<GatewayClient> GatewayTest::connect() const
{
    auto client = std::make_unique<GatewayClient>(socketPath());
    EXPECT_TRUE(client->isConnected());
    return client;
}
