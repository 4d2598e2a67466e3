#include "PlotDisplay.h"

#include "Visible.h"

#include <QtCore/QTime>

#include <cmath>
#include <limits>

namespace micro850::host {

namespace {

const std::chrono::milliseconds kPlotInterval(200);

QStringList unitsOf(const Project& project, const QVector<PlotElement>& elements)
{
    QStringList units;
    for (const PlotElement& element : elements)
        units += visible(project.variables.at(element.variable).unit);
    return units;
}

} // namespace

PlotDisplay::PlotDisplay(RunLoop& run, const Project& project, const QVector<PlotElement>& elements,
                         const PlotStyle& style)
    : m_plant(run.plant()), m_project(project), m_table(run.table()), m_elements(elements),
      m_span(style.span), m_plot(unitsOf(project, elements), style)
{
}

bool PlotDisplay::handleKeys()
{
    const QList<Key> keys = m_screen.keys();
    for (const Key& key : keys)
        m_quits = m_quits || (key.code == Key::Code::Character && key.character.toLower() == 'q');
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
    if (handleKeys() || m_screen.popResized() || now >= m_next)
        draw(now);
}

void PlotDisplay::draw(Duration now)
{
    m_next = now + kPlotInterval;
    m_screen.draw(page(m_screen.width(), m_screen.rows(), now));
}

PlotLabel PlotDisplay::labelOf(const PlotElement& element) const
{
    const ValueStore& values = m_plant.values();
    const int variable = element.variable;
    PlotLabel label;
    label.name = visible(element.name);
    const QString unit = visible(m_project.variables.at(variable).unit);
    const bool wasRead = values.wasRead(variable);
    if (wasRead)
        label.value = visible(values.elementText(variable, element.index));
    const bool isNumber = wasRead && !std::isnan(values.number(variable, element.index));
    if (isNumber && !unit.isEmpty())
        label.value += ' ' + unit;
    if (m_plant.quality(variable) != Quality::Good)
        label.problem = QStringLiteral(" (%1)").arg(qualityText(m_plant.quality(variable)));
    if (const QString error = values.error(variable); !error.isEmpty())
        label.problem += QStringLiteral(": ") + visible(error);
    else if (wasRead && !isNumber)
        label.problem += QStringLiteral(": not a number");
    return label;
}

Page PlotDisplay::page(int width, int rows, Duration now) const
{
    QVector<PlotLabel> labels;
    for (const PlotElement& element : m_elements)
        labels.append(labelOf(element));
    const Duration timeOfDay =
        std::chrono::milliseconds(QTime::currentTime().msecsSinceStartOfDay());
    Page page = m_plot.page(width, std::max(1, rows - 1), now, timeOfDay, labels);
    while (page.size() > std::max(0, rows - 1))
        page.removeLast();
    page.append({QStringLiteral("%1 s   q quit   %2")
                     .arg(m_span / std::chrono::seconds(1))
                     .arg(m_table.lineState()),
                 Style::Faint});
    for (PageLine& line : page)
        line.text = cut(visible(line.text), width);
    return page;
}

} // namespace micro850::host
