#include "TableDisplay.h"

#include "TableWrite.h"

namespace micro850::host {

namespace {

const std::chrono::milliseconds kDrawInterval(500);

} // namespace

TableDisplay::TableDisplay(RunLoop& run, const Project& project, const Output& output,
                           const QString& match, SortOrder order)
    : m_run(run), m_project(project), m_output(output), m_rows(run.plant(), project),
      m_view(run.table(), m_rows, match, order)
{
}

void TableDisplay::update(Duration now)
{
    const bool isPressed = handleKeys();
    const bool isResized = m_screen.popResized();
    if (const std::optional<WriteRequest> request = m_view.popWrite())
        write(*request, now);
    if (isPressed || isResized || now >= m_next)
        draw(now);
}

// What was typed ahead does not answer a question that nobody has read.
bool TableDisplay::handleKeys()
{
    const QList<Key> keys = m_screen.keys();
    for (const Key& key : keys) {
        const bool asked = m_view.asks();
        m_view.handle(key);
        if (!asked && m_view.asks()) {
            m_screen.dropKeys();
            break;
        }
    }
    return !keys.isEmpty();
}

void TableDisplay::draw(Duration now)
{
    m_next = now + kDrawInterval;
    m_rows.update(now);
    m_screen.draw(m_view.page(m_screen.width(), m_screen.rows(), now));
}

void TableDisplay::write(const WriteRequest& request, Duration now)
{
    m_view.tell(QStringLiteral("writing %1 ...").arg(request.name));
    draw(now);
    QString outcome;
    m_run.useTags([&](TagAccess& tags) { outcome = writtenText(tags, m_project, request); },
                  [&](const QString& failure) { outcome = failure; });
    m_view.tell(outcome);
}

void TableDisplay::close(Duration now)
{
    m_rows.hold(false);
    m_rows.update(now);
    const int width = m_screen.width();
    m_screen.leave();
    QStringList lines;
    for (const PageLine& line : m_view.whole(width))
        lines += line.text;
    m_output.data(Json(), lines);
}

} // namespace micro850::host
