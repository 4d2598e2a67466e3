// Writes a history as a gateway would have recorded it: make_history FILE LINE NAME[,NAME]...
// SECONDS END, one value a second of each variable up to END (milliseconds since 1970 UTC; 0: now).
// A tank that fills and empties every ten minutes, with a peak of 99.5 for one second a day.

#include "HistoryFile.h"

#include <QtCore/QByteArray>
#include <QtCore/QDateTime>
#include <QtCore/QList>

#include <cmath>
#include <cstdio>
#include <vector>

using namespace micro850;
using namespace micro850::host;

namespace {

const qint64 kDay = 86400;
const int kRowsOfTransaction = 4096;

double levelAt(qint64 second, std::size_t variable)
{
    if (second % kDay == kDay / 2)
        return 99.5;
    const double phase = double(second % 600) / 600 * 2 * M_PI + double(variable);
    return std::round((50 + 40 * std::sin(phase)) * 100) / 100;
}

void write(HistoryFile& file, const std::vector<std::shared_ptr<const HistoryVariable>>& variables,
           qint64 seconds, qint64 end)
{
    qint64 rows = 0;
    file.begin();
    for (qint64 second = 0; second < seconds; ++second) {
        for (std::size_t i = 0; i < variables.size(); ++i) {
            HistoryValue row;
            row.variable = variables[i];
            row.time = end - (seconds - second) * 1000;
            row.value = levelAt(second, i);
            row.quality = QStringLiteral("good");
            row.state = QStringLiteral("connected");
            file.add(row);
            ++rows;
        }
        file.advance(std::chrono::seconds(1));
        if (rows < kRowsOfTransaction && !file.isTransactionFull())
            continue;
        file.commit();
        while (file.retain()) {
        }
        file.begin();
        rows = 0;
    }
    file.commit();
}

} // namespace

int main(int argc, char** argv)
{
    const QString usage = QStringLiteral("make_history FILE LINE NAME[,NAME]... SECONDS END\n");
    if (argc != 6) {
        std::fputs(qPrintable(usage), stderr);
        return kExitUsage;
    }
    try {
        const qint64 seconds = QByteArray(argv[4]).toLongLong();
        const qint64 given = QByteArray(argv[5]).toLongLong();
        std::vector<std::shared_ptr<const HistoryVariable>> variables;
        for (const QByteArray& name : QByteArray(argv[3]).split(',')) {
            HistoryVariable variable;
            variable.line = QString::fromUtf8(argv[2]);
            variable.name = variable.tag = QString::fromUtf8(name);
            variable.type = QStringLiteral("REAL");
            variable.unit = QStringLiteral("cm");
            variables.push_back(std::make_shared<const HistoryVariable>(variable));
        }
        HistoryLimits limits;
        limits.bytes = qint64(8) * 1024 * 1024 * 1024;
        HistoryFile file(QString::fromLocal8Bit(argv[1]), limits);
        write(file, variables, seconds, given > 0 ? given : QDateTime::currentMSecsSinceEpoch());
    } catch (const UserError& error) {
        std::fprintf(stderr, "make_history: %s\n", error.what());
        return error.status();
    }
    return 0;
}
