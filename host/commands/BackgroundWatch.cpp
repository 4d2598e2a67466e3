#include "BackgroundWatch.h"

namespace micro850::host {

BackgroundWatch::BackgroundWatch(int number, WatchOrder order, ShellLine& shell,
                                 std::function<void()> prepare)
    : m_number(number), m_order(std::move(order)), m_shell(shell),
      m_output(m_order.json, false, std::move(prepare))
{
    if (m_order.seconds > 0)
        m_end = m_shell.clock().now() + fromSeconds(m_order.seconds);
    resume();
}

QString BackgroundWatch::title() const
{
    QStringList tags;
    for (const std::string& tag : m_order.tags)
        tags += textOf(tag);
    return tags.join(' ');
}

void BackgroundWatch::resume()
{
    const Project& project = m_order.project;
    if (m_plant)
        return;
    if (m_order.gateway)
        m_plant = std::make_unique<RemotePlant>(*m_order.gateway, project, m_shell.clock());
    else
        m_plant = m_shell.attach(project);
    m_table = std::make_unique<LiveTable>(*m_plant, project);
    m_printer = std::make_unique<ChangePrinter>(*m_plant, project, *m_table, m_output);
    m_printer->setHints(m_order.hints);
    m_printer->skipStates(); // the user sees the prompt, so that the line is there
}

void BackgroundWatch::pause()
{
    m_printer.reset();
    m_table.reset();
    m_plant.reset();
}

void BackgroundWatch::step()
{
    if (m_order.gateway)
        m_plant->step();
}

void BackgroundWatch::print()
{
    m_printer->update(m_shell.clock().now());
}

} // namespace micro850::host
