#include "Check.h"

#include "BrokerSecurity.h"
#include "Configuration.h"
#include "Counted.h"
#include "StandardStreams.h"
#include "TlsFiles.h"
#include "TokenFile.h"
#include "UserError.h"
#include "VisibleText.h"

#include <QtCore/QFileInfo>

#include <iostream>

namespace micro850::gateway {

namespace {

const int kFirstFreePort = 1024; // those below need a privilege

std::string brokerText(const BrokerAddress& broker)
{
    return broker.host.toStdString() + " port " + std::to_string(broker.port) +
           (broker.isEncrypted ? " encrypted" : "");
}

std::string webText(const WebSettings& web)
{
    return "page at " + web.http.address.toStdString() + " port " + std::to_string(web.http.port) +
           (web.http.certificateFile.isEmpty() ? "" : " encrypted") +
           (web.takesWrites ? " with writing" : "");
}

std::string summaryOf(const Configuration& configuration)
{
    int variables = 0;
    int writable = 0;
    for (const LineSettings& line : configuration.lines) {
        variables += line.project.variables.size();
        for (const host::Variable& variable : line.project.variables)
            writable += variable.writable ? 1 : 0;
    }
    const HistorySettings& history = configuration.history;
    const std::string recorded = history.file.isEmpty()
                                     ? "no history"
                                     : "history " + history.file.toStdString() + ", at most " +
                                           counted(history.keepDays, "day").toStdString() +
                                           " and " + std::to_string(history.keepMegabytes) + " MB";
    std::string delivered;
    if (configuration.brokers.mqtt)
        delivered += ", mqtt to " + brokerText(configuration.brokers.mqtt->broker);
    if (configuration.brokers.sparkplug)
        delivered += ", sparkplug to " + brokerText(configuration.brokers.sparkplug->broker);
    if (configuration.web.isOn)
        delivered += ", " + webText(configuration.web);
    return counted(configuration.lines.size(), "line").toStdString() + ", " +
           counted(variables, "variable").toStdString() + " (" + std::to_string(writable) +
           " writable), socket " + configuration.socket.path.toStdString() + ", " + recorded +
           delivered;
}

QString folderOf(const QString& file)
{
    return QFileInfo(file).path();
}

std::string missing(const char* key, const QString& folder)
{
    return std::string(key) + ": the folder " + folder.toStdString();
}

/// What a start would find besides the files that were read.
class Surroundings
{
public:
    explicit Surroundings(const QString& path) : m_path(path.toStdString()) {}

    // The system makes folders in /run when the service starts, and loses them when it ends.
    void lookAtSocket(const QString& socket)
    {
        const QString folder = folderOf(socket);
        if (QFileInfo(folder).isDir())
            return;
        if (folder.startsWith(QLatin1String("/run/")) && !QFileInfo::exists(folder))
            note(missing("socket.path", folder) +
                 " is not there now (systemd makes it for the installed service; else create it "
                 "before the start)");
        else
            mistake(missing("socket.path", folder) +
                    " is not there, and the service would not start (create it, or choose another "
                    "path)");
    }
    // The service starts, and records as soon as the folder is there.
    void lookAtHistory(const QString& file)
    {
        const QString folder = folderOf(file);
        if (!file.isEmpty() && !QFileInfo(folder).isDir())
            note(missing("history.file", folder) +
                 " is not there, and nothing is recorded until it is (create it, writable for the "
                 "user of the service)");
    }
    // The service starts, and connects as soon as its files are as they must be. Who checks may not
    // be allowed to read what the service is.
    void lookAtBroker(const std::string& section, const BrokerAddress& broker,
                      const DeliveryQueueSettings& queue)
    {
        const QString folder = folderOf(queue.file);
        if (!QFileInfo(folder).isDir())
            note(
                missing((section + ".queue.file").c_str(), folder) +
                " is not there; until it is, messages wait in memory and are lost when the service "
                "ends (create it, writable for the user of the service)");
        const std::string prefix = section + ".broker.";
        if (!broker.credentialsFile.isEmpty())
            lookAtSecret(prefix + "credentials", broker.credentialsFile, prefix + "credentials: ",
                         [&] { readCredentials(broker.credentialsFile); });
        if (broker.isEncrypted)
            lookAtSecret(prefix + "tls.key", broker.keyFile, prefix,
                         [&] { const BrokerSecurity security(broker); });
        else if (!broker.credentialsFile.isEmpty())
            note(section + ".broker: the password is sent without encryption (add \"tls\")");
    }
    // The service does not start with a token file that is not as it must be.
    void lookAtWeb(const WebSettings& web)
    {
        if (!web.tokenFile.isEmpty())
            lookAtSecret("web.tokenFile", web.tokenFile,
                         "web.tokenFile: ", [&] { readTokenFile(web.tokenFile); });
        const HttpSettings& http = web.http;
        if (!http.certificateFile.isEmpty())
            lookAtSecret("web.key", http.keyFile, "",
                         [&] { TlsFiles::read(http.certificateFile, http.keyFile); });
        if (http.port > 0 && http.port < kFirstFreePort)
            note("web.port: the installed service cannot listen at " + std::to_string(http.port) +
                 " (take one from 1024 on, or put a proxy in front)");
        const bool isBehindProxy = !web.http.proxies.isEmpty();
        if (web.isOpen() && !isBehindProxy && web.http.certificateFile.isEmpty())
            note("web: the token and the values are sent without encryption (add \"certificate\" "
                 "and "
                 "\"key\", or put a proxy in front)");
    }
    bool isGood() const { return m_good; }

private:
    template<typename Read>
    void lookAtSecret(const std::string& key, const QString& file, const std::string& prefix,
                      Read read)
    {
        const QFileInfo info(file);
        if (info.exists() && !info.isReadable())
            return note(key + ": " + file.toStdString() +
                        " cannot be read by you, so it was not checked");
        try {
            read();
        } catch (const UserError& error) {
            mistake(prefix + error.what());
        }
    }
    void note(const std::string& text) const
    {
        std::cerr << "micro850-gateway: note: " << visible(m_path + ": " + text) << '\n';
    }
    void mistake(const std::string& text)
    {
        m_good = false;
        std::cerr << "micro850-gateway: " << visible(m_path + ": " + text) << '\n';
    }

    const std::string m_path;
    bool m_good = true;
};

} // namespace

int checkConfiguration(const QString& path)
{
    std::vector<std::string> mistakes;
    const Configuration configuration = Configuration::fromFile(path, mistakes);
    for (const std::string& mistake : mistakes)
        std::cerr << "micro850-gateway: " << mistake << '\n';
    if (!mistakes.empty())
        return kExitUsage;
    Surroundings surroundings(path);
    surroundings.lookAtSocket(configuration.socket.path);
    surroundings.lookAtHistory(configuration.history.file);
    const BrokerSettings& brokers = configuration.brokers;
    if (brokers.mqtt)
        surroundings.lookAtBroker("mqtt", brokers.mqtt->broker, brokers.mqtt->queue);
    if (brokers.sparkplug)
        surroundings.lookAtBroker("sparkplug", brokers.sparkplug->broker, brokers.sparkplug->queue);
    if (configuration.web.isOn)
        surroundings.lookAtWeb(configuration.web);
    if (!surroundings.isGood())
        return kExitUsage;
    writeStandardOutput(visible(path.toStdString()) + ": ok: " + summaryOf(configuration) + '\n');
    return kExitDone;
}

} // namespace micro850::gateway
