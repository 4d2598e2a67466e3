#include "LiveTable.h"

#include "Visible.h"

#include <algorithm>
#include <limits>

namespace micro850::host {

namespace {

QString trimmedEnd(QString text)
{
    while (text.endsWith(' '))
        text.chop(1);
    return text;
}

// Widths of the columns. The value gets the rest of the line; the error column is empty when there
// is no error.
struct Widths
{
    int name = 4;
    int type = 4;
    int value = 5;
    int age = 7;
    int quality = 7;
    int error = 0;

    QString row(const QStringList& cells) const
    {
        return fitted(cells.at(0), name) + ' ' + fitted(cells.at(1), type) + ' ' +
               fitted(cells.at(2), value) + ' ' + fitted(cells.at(3), age) + ' ' +
               fitted(cells.at(4), quality) + ' ' + fitted(cells.at(5), error);
    }
};

Widths widthsFor(const QVector<QStringList>& rows, int width)
{
    Widths widths;
    for (const QStringList& row : rows) {
        widths.name = std::max(widths.name, displayWidth(row.at(0)));
        widths.type = std::max(widths.type, displayWidth(row.at(1)));
        widths.value = std::max(widths.value, displayWidth(row.at(2)));
        widths.error = std::max(widths.error, displayWidth(row.at(5)));
    }
    widths.name = std::min(widths.name, std::max(8, width / 3));
    widths.error = std::min(widths.error, width / 3);
    const int rest =
        width - widths.name - widths.type - widths.age - widths.quality - widths.error - 5;
    widths.value = std::max(5, std::min(widths.value, rest));
    return widths;
}

QString errorCounts(const Counters& counters)
{
    QStringList texts;
    for (auto error = counters.errors.constBegin(); error != counters.errors.constEnd(); ++error)
        texts += QStringLiteral("%1x status %2").arg(error.value()).arg(error.key());
    return texts.join(QStringLiteral(", "));
}

} // namespace

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

QStringList LiveTable::variableRow(int variable, Duration now) const
{
    const ValueStore& values = m_loop.values();
    const Variable& asked = m_project.variables.at(variable);
    const CipType* type = values.type(variable) ? values.type(variable) : asked.type;
    const std::optional<Duration> at = values.refreshedAt(variable);
    return {visible(asked.name),
            type ? QString::fromLatin1(type->name) : QStringLiteral("?"),
            visible(values.text(variable)),
            ageText(at ? std::make_optional(now - *at) : std::nullopt),
            qualityText(m_loop.quality(variable)),
            visible(values.error(variable))};
}

Duration LiveTable::age(int variable, Duration now) const
{
    const std::optional<Duration> at = m_loop.values().refreshedAt(variable);
    return at ? now - *at : Duration::max();
}

Style LiveTable::styleOf(int variable) const
{
    if (!m_loop.values().error(variable).isEmpty())
        return Style::Error;
    return m_loop.quality(variable) == Quality::Good ? Style::Plain : Style::Warning;
}

Page LiveTable::rows(const QVector<int>& variables, int width, Duration now) const
{
    QVector<QStringList> cells;
    for (const int variable : variables)
        cells.append(variableRow(variable, now));
    const Widths widths = widthsFor(cells, width);
    Page page;
    const QStringList heading = {"NAME", "TYPE", "VALUE", "AGE", "QUALITY", "ERROR"};
    page.append({trimmedEnd(cut(widths.row(heading), width)), Style::Heading});
    for (int i = 0; i < cells.size(); ++i)
        page.append({trimmedEnd(cut(widths.row(cells.at(i)), width)), styleOf(variables.at(i))});
    return page;
}

QString LiveTable::lineStatistics(Duration now) const
{
    const LineStatistics& line = m_loop.statistics();
    qint64 retries = 0;
    for (const Station& station : m_loop.stations())
        retries += station.counters().retries;
    const auto time = [&line](int percent) {
        const std::optional<Duration> found = line.roundTrip(percent);
        if (!found)
            return QStringLiteral("-");
        const qint64 ms = wholeMilliseconds(*found);
        return ms == 0 ? QStringLiteral("<1 ms") : QStringLiteral("%1 ms").arg(ms);
    };
    return QStringLiteral("%1 transactions/s, %2 % in use, round trip %3, 99 % within %4, "
                          "retries %5, reopened %6")
        .arg(line.transactionsPerSecond(now), 0, 'f', 1)
        .arg(line.percentInUse(now, m_project.port), 0, 'f', 0)
        .arg(time(50), time(99))
        .arg(retries)
        .arg(m_loop.lineReconnects());
}

QString LiveTable::lineState() const
{
    return lineStateWith(m_loop.lineError());
}

QString LiveTable::reportedLineState() const
{
    return lineStateWith(m_loop.reportedLineError());
}

QString LiveTable::lineStateWith(const QString& error) const
{
    if (m_loop.lineIsUp())
        return QStringLiteral("line %1").arg(m_project.port.text());
    return QStringLiteral("line %1: DOWN, %2").arg(m_project.port.text(), error);
}

QStringList LiveTable::stationLines(Duration now) const
{
    QStringList lines;
    for (const Station& station : m_loop.stations()) {
        QString line = QStringLiteral("station %1").arg(station.number());
        if (!station.name().isEmpty())
            line += QStringLiteral(" (%1)").arg(station.name());
        const bool up = m_loop.lineIsUp();
        line += QStringLiteral(": %1").arg(stateText(station, up));
        if (up && !station.error().isEmpty())
            line += QStringLiteral(", %1").arg(station.error());
        if ((!up || !station.alive()) && station.lastAnswer())
            line +=
                QStringLiteral(", last answer %1 ago").arg(ageText(now - *station.lastAnswer()));
        const Counters& counters = station.counters();
        line += QStringLiteral("; sent %1, answered %2, timed out %3, corrupt %4, late %5, "
                               "reconnects %6")
                    .arg(counters.sent)
                    .arg(counters.answered)
                    .arg(counters.timedOut)
                    .arg(counters.corrupt)
                    .arg(counters.late)
                    .arg(counters.reconnects);
        if (!counters.errors.isEmpty())
            line += QStringLiteral("; ") + errorCounts(counters);
        lines += line;
    }
    return lines;
}

QString LiveTable::changeLine(int variable) const
{
    const ValueStore& values = m_loop.values();
    const QString text = values.text(variable);
    QString line = m_project.variables.at(variable).shownName();
    if (!text.isEmpty() || values.wasRead(variable)) // a string can be empty
        line += QStringLiteral(" = ") + text;
    const QString error = values.error(variable);
    if (!error.isEmpty())
        return line + QStringLiteral(" (%1)").arg(error);
    const bool stale = m_loop.quality(variable) == Quality::Stale;
    return stale ? line + QStringLiteral(" (stale)") : line;
}

bool LiveTable::complete() const
{
    for (int i = 0; i < m_loop.values().size(); ++i) {
        if (!m_loop.values().wasRead(i))
            return false;
    }
    return true;
}

} // namespace micro850::host
