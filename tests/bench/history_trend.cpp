// How long a trend takes, and a month of recording: history_trend FILE LINE NAME[,NAME]... of a
// history that make_history wrote. Prints the time of the first and of the best of five queries
// for several spans up to the end of the file.

#include "HistoryReader.h"

#include <QtCore/QByteArray>
#include <QtCore/QList>

#include <algorithm>
#include <chrono>
#include <cstdio>

using namespace micro850;
using namespace micro850::host;

namespace {

double millisecondsOf(const QString& file, const QString& line, const QList<QByteArray>& names,
                      qint64 from, qint64 to, qint64& points)
{
    const auto began = std::chrono::steady_clock::now();
    points = 0;
    for (const QByteArray& name : names) {
        HistoryReader reader(file);
        const HistoryTrend trend = reader.trend(
            {line, QString::fromUtf8(name), 0, from, to, 800, {}}, [] { return false; });
        points += trend.points.size();
    }
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - began)
        .count();
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fputs("history_trend FILE LINE NAME[,NAME]...\n", stderr);
        return kExitUsage;
    }
    try {
        const QString file = QString::fromLocal8Bit(argv[1]);
        const QString line = QString::fromUtf8(argv[2]);
        const QList<QByteArray> names = QByteArray(argv[3]).split(',');
        const qint64 to =
            Database(file, Database::Access::Read).number("SELECT max(latest) FROM periods") + 1;
        for (const int minutes : {10, 60, 24 * 60, 7 * 24 * 60, 30 * 24 * 60}) {
            qint64 points = 0;
            const qint64 from = to - qint64(minutes) * 60000;
            const double first = millisecondsOf(file, line, names, from, to, points);
            double best = first;
            for (int i = 0; i < 5; ++i)
                best = std::min(best, millisecondsOf(file, line, names, from, to, points));
            std::printf("%6d minutes, %d variables: first %7.1f ms, best %7.1f ms, %lld points\n",
                        minutes, int(names.size()), first, best, static_cast<long long>(points));
        }
    } catch (const UserError& error) {
        std::fprintf(stderr, "history_trend: %s\n", error.what());
        return error.status();
    }
    return 0;
}
