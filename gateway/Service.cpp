#include "Service.h"

#include "BrokerService.h"
#include "ClientServer.h"
#include "Configuration.h"
#include "Counted.h"
#include "DeliveryProcess.h"
#include "HistoryService.h"
#include "Lines.h"
#include "Log.h"
#include "SystemNotice.h"
#include "UserError.h"
#include "WebService.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QMap>
#include <QtCore/QSocketNotifier>

#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <utility>

namespace micro850::gateway {

namespace {

const char kHeartbeatVariable[] = "MICRO850_GATEWAY_HEARTBEAT_MS";

// docs/gateway.md tells it.
SupervisionSettings supervisionFromEnvironment()
{
    SupervisionSettings settings;
    bool isNumber = false;
    const int milliseconds = qEnvironmentVariableIntValue(kHeartbeatVariable, &isNumber);
    if (isNumber && milliseconds > 0)
        settings.heartbeatLimit = std::chrono::milliseconds(milliseconds);
    return settings;
}

SupervisionSettings deliverySupervision()
{
    SupervisionSettings settings = supervisionFromEnvironment();
    settings.start = [] { return startProcess(kDeliveryArgument); };
    return settings;
}

// "added: oven; changed: press", by the names of the lines; "no line changed" without any.
QString changesBetween(const Lines& before, const QVector<LineSettings>& after)
{
    QMap<QString, const LineSettings*> old;
    for (int i = 0; i < before.size(); ++i)
        old.insert(before.line(i).name, &before.line(i));
    QStringList added;
    QStringList changed;
    for (const LineSettings& line : after) {
        const LineSettings* const same = old.take(line.name);
        if (!same)
            added += line.name;
        else if (same->projectFile != line.projectFile || same->projectText != line.projectText)
            changed += line.name;
    }
    QStringList parts;
    const auto tell = [&parts](const char* what, const QStringList& names) {
        if (!names.isEmpty())
            parts += QLatin1String(what) + names.join(QStringLiteral(", "));
    };
    tell("added: ", added);
    tell("removed: ", old.keys());
    tell("changed: ", changed);
    return parts.isEmpty() ? QStringLiteral("no line changed") : parts.join(QStringLiteral("; "));
}

/// Signals of the system as events. The heeded are blocked, also in threads that are started
/// later.
class Signals
{
public:
    template<typename Handler> explicit Signals(Handler handler)
    {
        sigset_t heeded;
        sigemptyset(&heeded);
        for (const int signal : {SIGTERM, SIGINT, SIGHUP})
            sigaddset(&heeded, signal);
        ::sigprocmask(SIG_BLOCK, &heeded, &m_before);
        m_descriptor = ::signalfd(-1, &heeded, SFD_CLOEXEC | SFD_NONBLOCK);
        m_notifier = std::make_unique<QSocketNotifier>(m_descriptor, QSocketNotifier::Read);
        QObject::connect(m_notifier.get(), &QSocketNotifier::activated, m_notifier.get(),
                         [this, handler] {
                             signalfd_siginfo signal = {};
                             while (::read(m_descriptor, &signal, sizeof signal) ==
                                    static_cast<ssize_t>(sizeof signal))
                                 handler(static_cast<int>(signal.ssi_signo));
                         });
    }
    ~Signals()
    {
        m_notifier.reset();
        ::close(m_descriptor);
        ::sigprocmask(SIG_SETMASK, &m_before, nullptr);
    }
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

private:
    sigset_t m_before = {};
    int m_descriptor = -1;
    std::unique_ptr<QSocketNotifier> m_notifier;
};

/// The service while it runs.
class Service
{
public:
    Service(const QString& path, const Configuration& configuration);
    int run();

private:
    void handleSignal(int signal);
    void reload();
    void applyNewConfiguration();
    void apply(const Configuration& configuration);
    ClientNeeds clientNeeds();
    WebNeeds webNeeds();
    void change(const Configuration& configuration);
    void tellPage();
    void tellAlarm(const LineEvent& event);
    void recordAlarm(const LineEvent& event);
    void tellStatus();
    void stop();
    void continueToStop();

    const QString m_path;
    SystemClock m_clock;
    SystemWallClock m_wallClock;
    SystemNotice m_notice;
    Signals m_signals;
    EventLog m_log;
    Lines m_lines;
    WriteRules m_writes;
    HistoryService m_history;
    BrokerService m_brokers;
    ClientServer m_clients;
    WebService m_web;
    QString m_page; ///< the address that was told
    QTimer m_tick;
    Duration m_nextStatus{0};
    bool m_stopping = false;
    bool m_stoppingBrokers = false;
};

Service::Service(const QString& path, const Configuration& configuration)
    : m_path(path), m_signals([this](int signal) { handleSignal(signal); }),
      m_lines(m_clock, m_wallClock, supervisionFromEnvironment()),
      m_writes(m_lines, m_clock, m_wallClock),
      m_history(m_lines, configuration.history, m_clock, m_wallClock,
                [this](const LineEvent& event) { tellAlarm(event); }),
      m_brokers(m_lines, m_writes, configuration.brokers, m_clock, m_wallClock,
                deliverySupervision(), [this](const LineEvent& event) { recordAlarm(event); }),
      m_clients(clientNeeds(), configuration.socket), m_web(webNeeds(), configuration.web)
{
    m_lines.addListener(m_log);
    m_lines.setLines(configuration.lines);
    QObject::connect(&m_tick, &QTimer::timeout, &m_tick, [this] {
        if (m_stopping)
            continueToStop();
        m_notice.pat();
        if (m_clock.now() >= m_nextStatus)
            tellStatus();
    });
}

ClientNeeds Service::clientNeeds()
{
    return {m_lines,
            m_writes,
            m_history,
            m_clock,
            QStringLiteral("micro850-gateway " MICRO850_VERSION),
            [this] { applyNewConfiguration(); },
            static_cast<int>(::geteuid()),
            [this] { return m_brokers.status(); },
            [this] { return m_web.status(); }};
}

WebNeeds Service::webNeeds()
{
    return {m_lines,
            m_writes,
            m_history,
            m_clock,
            m_wallClock,
            QStringLiteral("micro850-gateway " MICRO850_VERSION),
            [this] { return m_clients.status(); },
            [](const QString& line) { log(Priority::Warning, line); },
            [this](const LineEvent& event) { recordAlarm(event); }};
}

void Service::tellAlarm(const LineEvent& event)
{
    m_log.handleEvent(event);
    m_clients.handleEvent(event);
    m_web.tellAlarm(event);
}

void Service::recordAlarm(const LineEvent& event)
{
    m_history.handleNotice(event);
    tellAlarm(event);
}

int Service::run()
{
    const int tickMs = 100;
    m_tick.start(tickMs);
    m_notice.ready();
    tellStatus();
    log(Priority::Info,
        QStringLiteral("serving %1 of %2").arg(counted(m_lines.size(), "line"), m_path));
    tellPage();
    const int status = QCoreApplication::exec();
    m_lines.removeListener(m_log);
    return status;
}

void Service::handleSignal(int signal)
{
    if (signal != SIGHUP)
        stop();
    else if (!m_stopping)
        reload();
}

void Service::tellStatus()
{
    m_nextStatus = m_clock.now() + std::chrono::seconds(1);
    int up = 0;
    for (int line = 0; line < m_lines.size(); ++line)
        up += m_lines.status(line).value("up", false) ? 1 : 0;
    QString text = QStringLiteral("%1 of %2 up").arg(up).arg(counted(m_lines.size(), "line"));
    if (const int brokers = m_brokers.size())
        text += QStringLiteral(", %1 of %2 connected")
                    .arg(m_brokers.connected())
                    .arg(counted(brokers, "broker"));
    m_notice.tellStatus(m_stopping ? QStringLiteral("ending") : text);
}

void Service::reload()
{
    try {
        applyNewConfiguration();
    } catch (const UserError&) {
        // It is logged.
    }
}

// Throws UserError with the first mistake; nothing has changed then.
void Service::applyNewConfiguration()
{
    m_notice.reloading();
    std::vector<std::string> mistakes;
    const Configuration configuration = Configuration::fromFile(m_path, mistakes);
    try {
        if (mistakes.empty())
            change(configuration);
    } catch (const UserError& error) {
        mistakes.emplace_back(error.what());
    }
    if (mistakes.empty())
        apply(configuration);
    m_notice.ready();
    if (mistakes.empty())
        return;
    for (const std::string& mistake : mistakes)
        log(Priority::Error, QString::fromStdString(mistake));
    log(Priority::Error,
        QStringLiteral("the new configuration is refused; the service goes on with the old one"));
    throw UserError(complaintOf(mistakes));
}

// What can fail, so that all of it is done or none.
void Service::change(const Configuration& configuration)
{
    const ClientSettings before = m_clients.settings();
    m_clients.change(configuration.socket);
    try {
        m_web.change(configuration.web);
    } catch (const UserError&) {
        m_clients.change(before);
        throw;
    }
}

// Whoever wants to look finds it in the journal.
void Service::tellPage()
{
    const QString page = m_web.address();
    if (page == m_page)
        return;
    m_page = page;
    log(Priority::Notice, page.isEmpty() ? QStringLiteral("there is no page any more")
                                         : QStringLiteral("the page is at %1").arg(page));
}

void Service::apply(const Configuration& configuration)
{
    const QStringList changes = QStringList(changesBetween(m_lines, configuration.lines)) +
                                m_brokers.changesTo(configuration.brokers);
    m_history.change(configuration.history);
    m_lines.setLines(configuration.lines);
    m_brokers.change(configuration.brokers);
    log(Priority::Notice,
        QStringLiteral("the configuration was read again: %1; %2")
            .arg(counted(m_lines.size(), "line"), changes.join(QStringLiteral("; "))));
    tellPage();
}

void Service::stop()
{
    if (m_stopping)
        return;
    m_stopping = true;
    m_notice.stopping();
    log(Priority::Info, QStringLiteral("ending"));
    m_lines.stop();
}

// The processes that deliver end last: what the lines tell at their end goes to the brokers too.
void Service::continueToStop()
{
    if (!m_lines.haveEnded())
        return;
    if (!std::exchange(m_stoppingBrokers, true))
        m_brokers.stop();
    if (m_brokers.haveEnded())
        QCoreApplication::quit();
}

} // namespace

int runService(const QString& configurationPath)
{
    const Configuration configuration = Configuration::fromFile(configurationPath);
    Service service(configurationPath, configuration);
    return service.run();
}

} // namespace micro850::gateway
