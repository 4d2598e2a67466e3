// Configurations of the gateway: any text is read or refused with lines that each name the file. A
// configuration that is read can be run.

#include "Configuration.h"
#include "complaint.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QSet>
#include <QtCore/QTemporaryDir>

#include <cstddef>
#include <cstdint>
#include <sys/mman.h>
#include <unistd.h>

using micro850::gateway::Configuration;

namespace {

/// A folder with three projects, two of which are good, and a configuration, which is in memory.
class Folder
{
public:
    Folder()
    {
        write("p", R"({"port": {"device": "/dev/ttyUSB0"}, "variables": [{"tag": "A"}]})");
        write("q", R"({"port": {"device": "tcp://plc:1"}, "variables": [{"tag": "A"}]})");
        write("bad", R"({"port": {"device": "/dev/ttyUSB0"}, "variables": [{"tag": 1}]})");
        FUZZ_CHECK(QFile::link(QStringLiteral("/proc/self/fd/%1").arg(m_file), path()));
    }
    QString path() const { return m_folder.filePath(QStringLiteral("c")); }
    std::string name() const { return m_folder.path().toStdString(); }
    void configure(const std::uint8_t* bytes, std::size_t size) const
    {
        FUZZ_CHECK(ftruncate(m_file, 0) == 0);
        FUZZ_CHECK(pwrite(m_file, bytes, size, 0) == static_cast<ssize_t>(size));
    }

private:
    void write(const char* name, const char* text) const
    {
        QFile file(m_folder.filePath(QLatin1String(name)));
        FUZZ_CHECK(file.open(QIODevice::WriteOnly) && file.write(text) > 0);
    }

    QTemporaryDir m_folder;
    int m_file = memfd_create("configuration", 0);
};

void check(const Configuration& configuration)
{
    FUZZ_CHECK(!configuration.lines.isEmpty() && configuration.lines.size() <= 64);
    QSet<QString> names;
    QSet<QString> devices;
    for (const micro850::gateway::LineSettings& line : configuration.lines) {
        FUZZ_CHECK(!line.name.isEmpty() && line.name.size() <= 64 && !line.name.startsWith('.'));
        for (const QChar c : line.name)
            FUZZ_CHECK(c.unicode() > ' ' && c.unicode() < 127 && !QString("/*?#+$:").contains(c));
        FUZZ_CHECK(QDir::isAbsolutePath(line.projectFile) && !line.projectText.isEmpty());
        FUZZ_CHECK(!line.project.variables.isEmpty() && !line.project.port.device.isEmpty());
        names.insert(line.name);
        devices.insert(line.project.port.device);
    }
    FUZZ_CHECK(names.size() == configuration.lines.size());
    FUZZ_CHECK(devices.size() == configuration.lines.size());
    const QString& socket = configuration.socket.path;
    FUZZ_CHECK(QDir::isAbsolutePath(socket) && QFile::encodeName(socket).size() < 108);
    FUZZ_CHECK(configuration.socket.mostClients >= 1 && configuration.socket.mostClients <= 10000);
    const QString& history = configuration.history.file;
    FUZZ_CHECK(history.isEmpty() || (QDir::isAbsolutePath(history) && history != socket));
    FUZZ_CHECK(configuration.history.keepDays >= 1 && configuration.history.keepMegabytes >= 1);
    fuzz::checkShownText(socket + history);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    static const Folder folder;
    folder.configure(bytes, size);
    std::vector<std::string> mistakes;
    const Configuration configuration = Configuration::fromFile(folder.path(), mistakes);
    // A mistake in a project names a file elsewhere if its path does.
    for (const std::string& mistake : mistakes)
        fuzz::checkComplaint(micro850::UserError(mistake), "/");
    try {
        Configuration::fromFile(folder.path());
        FUZZ_CHECK(mistakes.empty());
        check(configuration);
    } catch (const micro850::UserError& error) {
        FUZZ_CHECK(!mistakes.empty());
        fuzz::checkComplaint(error, mistakes.front().substr(0, folder.name().size()));
    }
    return 0;
}
