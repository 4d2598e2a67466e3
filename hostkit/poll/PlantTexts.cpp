#include "PlantTexts.h"

namespace micro850::host {

namespace {

QString textWith(const LineView& line, const QString& error)
{
    const QString text = QStringLiteral("line ") + line.text;
    return line.isUp ? text : text + QStringLiteral(": DOWN, ") + error;
}

QString roundTripText(std::optional<Duration> time)
{
    if (!time)
        return QStringLiteral("-");
    const qint64 ms = wholeMilliseconds(*time);
    return ms == 0 ? QStringLiteral("<1 ms") : QStringLiteral("%1 ms").arg(ms);
}

// As few digits as the reader needs: 1.4 s, 0.35 s, 120 s.
QString secondsText(Duration time)
{
    const double seconds = std::chrono::duration<double>(time).count();
    const int decimals = seconds >= 10 ? 0 : seconds >= 1 ? 1 : seconds >= 0.1 ? 2 : 3;
    QString text = QString::number(seconds, 'f', decimals);
    while (decimals > 0 && text.endsWith(QLatin1Char('0')))
        text.chop(1);
    if (text.endsWith(QLatin1Char('.')))
        text.chop(1);
    return text + QStringLiteral(" s");
}

QString errorCounts(const Counters& counters)
{
    QStringList texts;
    for (auto error = counters.errors.constBegin(); error != counters.errors.constEnd(); ++error)
        texts += QStringLiteral("%1x status %2").arg(error.value()).arg(error.key());
    return texts.join(QStringLiteral(", "));
}

} // namespace

QString lineStateText(const LineView& line)
{
    return textWith(line, line.error);
}

QString reportedLineStateText(const LineView& line)
{
    return textWith(line, line.reportedError);
}

QString lineFiguresText(const LineFigures& figures, const QVector<StationView>& stations)
{
    qint64 retries = 0;
    for (const StationView& station : stations)
        retries += station.counters.retries;
    const auto rate = [&figures](double number, int decimals) {
        return figures.hasRates ? QString::number(number, 'f', decimals) : QStringLiteral("-");
    };
    return QStringLiteral("%1 transactions/s, %2 % in use, round trip %3, 99 % within %4, "
                          "retries %5, reopened %6")
        .arg(rate(figures.transactionsPerSecond, 1), rate(figures.percentInUse, 0))
        .arg(roundTripText(figures.roundTripMedian), roundTripText(figures.roundTrip99))
        .arg(retries)
        .arg(figures.reopened);
}

QString stationText(const StationView& station, Duration now)
{
    QString text = QStringLiteral("station %1").arg(station.number);
    if (!station.name.isEmpty())
        text += QStringLiteral(" (") + station.name + QStringLiteral(")");
    text += QStringLiteral(": ") + station.state;
    const bool lineIsDown = station.state == QStringLiteral("line down");
    if (!lineIsDown && !station.problem.isEmpty()) // of the line, its own text has the reason
        text += QStringLiteral(", ") + station.problem;
    if (!station.isConnected && station.lastAnswer)
        text += QStringLiteral(", last answer %1 ago").arg(ageText(now - *station.lastAnswer));
    const Counters& counters = station.counters;
    text += QStringLiteral("; sent %1, answered %2, timed out %3, corrupt %4, late %5, "
                           "reconnects %6")
                .arg(counters.sent)
                .arg(counters.answered)
                .arg(counters.timedOut)
                .arg(counters.corrupt)
                .arg(counters.late)
                .arg(counters.reconnects);
    if (!counters.errors.isEmpty())
        text += QStringLiteral("; ") + errorCounts(counters);
    return text;
}

QString conditionText(const StationView& station)
{
    const bool dead =
        station.state == QStringLiteral("dead") || station.state == QStringLiteral("refused");
    if (!dead || station.problem.isEmpty())
        return station.state;
    return station.state + QStringLiteral(", ") + station.problem;
}

QString overloadText(double share, const QString& variable, Duration asked, Duration actual)
{
    return QStringLiteral("the line is %1 % asked for: ").arg(share * 100, 0, 'f', 0) + variable +
           QStringLiteral(" is read every ") + secondsText(actual) +
           QStringLiteral(" instead of ") + secondsText(asked);
}

QString ageText(std::optional<Duration> age)
{
    if (!age)
        return QStringLiteral("-");
    const qint64 ms = wholeMilliseconds(*age);
    if (ms < 10000)
        return QStringLiteral("%1.%2 s").arg(ms / 1000).arg(ms % 1000 / 100);
    if (ms < 120000)
        return QStringLiteral("%1 s").arg(ms / 1000);
    if (ms < 7200000)
        return QStringLiteral("%1 min").arg(ms / 60000);
    return QStringLiteral("%1 h").arg(ms / 3600000);
}

} // namespace micro850::host
