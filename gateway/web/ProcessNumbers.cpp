#include "ProcessNumbers.h"

#include <QtCore/QDir>
#include <QtCore/QFile>

#include <sys/resource.h>
#include <unistd.h>

namespace micro850::gateway {

namespace {

// Fields of /proc/self/stat, counted from the one after the name of the program.
enum StatField { kUserTime = 11, kSystemTime = 12, kStartTime = 19, kVirtual = 20, kResident = 21 };

// The name of a program can have spaces and brackets.
QList<QByteArray> statFields()
{
    QFile file(QStringLiteral("/proc/self/stat"));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray text = file.readAll();
    return text.mid(text.lastIndexOf(')') + 2).split(' ');
}

// When the system was started, in seconds since 1970 UTC.
double bootTime()
{
    QFile file(QStringLiteral("/proc/stat"));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    const char* const kKey = "btime ";
    const QList<QByteArray> lines = file.readAll().split('\n');
    for (const QByteArray& line : lines) {
        if (line.startsWith(kKey))
            return line.mid(static_cast<int>(qstrlen(kKey))).toDouble();
    }
    return 0;
}

} // namespace

ProcessNumbers processNumbers()
{
    ProcessNumbers numbers;
    const QList<QByteArray> fields = statFields();
    const auto ticks = static_cast<double>(::sysconf(_SC_CLK_TCK));
    numbers.processorSeconds =
        (fields.value(kUserTime).toDouble() + fields.value(kSystemTime).toDouble()) / ticks;
    // The start of the system is taken once: it moves with the clock, the start of a process not.
    static const double kBootTime = bootTime();
    numbers.startedAt = kBootTime + fields.value(kStartTime).toDouble() / ticks;
    numbers.virtualBytes = fields.value(kVirtual).toDouble();
    numbers.residentBytes =
        fields.value(kResident).toDouble() * static_cast<double>(::sysconf(_SC_PAGESIZE));
    // Without the one that lists them.
    const QDir descriptors(QStringLiteral("/proc/self/fd"));
    const auto filter = QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot;
    numbers.openDescriptors = descriptors.entryList(filter).size() - 1;
    rlimit limit = {};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY)
        numbers.mostDescriptors = static_cast<double>(limit.rlim_cur);
    return numbers;
}

} // namespace micro850::gateway
