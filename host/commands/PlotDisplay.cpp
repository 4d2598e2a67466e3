#include "PlotDisplay.h"

#include "PlainText.h"
#include "Visible.h"

#include <QtCore/QTime>

#include <cmath>
#include <limits>
#include <unistd.h>

namespace micro850::host {

namespace {

const std::chrono::milliseconds kPlotInterval(200);

// What the terminal can show.
QString shown(const QString& text)
{
    return QString::fromStdString(textFor(STDOUT_FILENO, visible(text).toStdString()));
}

QStringList unitsOf(const Project& project, const QVector<PlotElement>& elements)
{
    QStringList units;
    for (const PlotElement& element : elements)
        units += shown(project.variables.at(element.variable).unit);
    return units;
}

} // namespace

PlotDisplay::PlotDisplay(RunLoop& run, const Project& project, const QVector<PlotElement>& elements,
                         const PlotStyle& style)
    : m_plant(run.plant()), m_project(project), m_table(run.table()), m_elements(elements),
      m_span(style.span), m_plot(unitsOf(project, elements), style)
{
}

// Values are taken down while the picture is held, too.
bool PlotDisplay::handleKeys(Duration now)
{
    const QList<Key> keys = m_screen.keys();
    for (const Key& key : keys) {
        const QChar sign = key.code == Key::Code::Character ? key.character.toLower() : QChar();
        m_quits = m_quits || sign == 'q';
        if (sign == 'p')
            m_held = m_held ? std::nullopt : std::make_optional(picture(now));
    }
    return !keys.isEmpty();
}

void PlotDisplay::update(Duration now)
{
    for (int i = 0; i < m_elements.size(); ++i) {
        const PlotElement& element = m_elements.at(i);
        const bool isGood = m_plant.quality(element.variable) == Quality::Good;
        m_plot.add(i, now,
                   isGood ? m_plant.values().number(element.variable, element.index)
                          : std::numeric_limits<double>::quiet_NaN());
    }
    if (handleKeys(now) || m_screen.popResized() || now >= m_next)
        draw(now);
}

void PlotDisplay::draw(Duration now)
{
    m_next = now + kPlotInterval;
    m_screen.draw(page(m_screen.width(), m_screen.rows(), m_held ? *m_held : picture(now)));
}

PlotLabel PlotDisplay::labelOf(const PlotElement& element) const
{
    const ValueStore& values = m_plant.values();
    const int variable = element.variable;
    PlotLabel label;
    label.name = shown(element.name);
    const QString unit = shown(m_project.variables.at(variable).unit);
    const bool wasRead = values.wasRead(variable);
    if (wasRead)
        label.value = shown(values.elementText(variable, element.index));
    const bool isNumber = wasRead && !std::isnan(values.number(variable, element.index));
    if (isNumber && !unit.isEmpty())
        label.value += ' ' + unit;
    if (m_plant.quality(variable) != Quality::Good)
        label.problem = QStringLiteral(" (%1)").arg(qualityText(m_plant.quality(variable)));
    if (const QString error = values.error(variable); !error.isEmpty())
        label.problem += QStringLiteral(": ") + shown(error);
    else if (wasRead && !isNumber)
        label.problem += QStringLiteral(": not a number");
    return label;
}

PlotDisplay::Picture PlotDisplay::picture(Duration now) const
{
    QVector<PlotLabel> labels;
    for (const PlotElement& element : m_elements)
        labels.append(labelOf(element));
    return {m_plot, labels, now,
            std::chrono::milliseconds(QTime::currentTime().msecsSinceStartOfDay())};
}

Page PlotDisplay::page(int width, int rows, const Picture& picture) const
{
    Page page = picture.plot.page(width, std::max(1, rows - 1), picture.now, picture.timeOfDay,
                                  picture.labels);
    while (page.size() > std::max(0, rows - 1))
        page.removeLast();
    page.append({QStringLiteral("%1%2 s   q quit, p pause   %3")
                     .arg(m_held ? QStringLiteral("PAUSED ") : QString())
                     .arg(m_span / std::chrono::seconds(1))
                     .arg(m_table.lineState()),
                 Style::Faint});
    for (PageLine& line : page)
        line.text = cut(visible(line.text), width);
    return page;
}

} // namespace micro850::host
