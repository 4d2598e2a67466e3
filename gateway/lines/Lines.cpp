#include "Lines.h"

#include <algorithm>
#include <csignal>
#include <utility>

namespace micro850::gateway {

namespace {

bool isSame(const LineSettings& a, const LineSettings& b)
{
    return a.name == b.name && a.projectFile == b.projectFile && a.projectText == b.projectText;
}

} // namespace

Lines::Lines(const Clock& clock, const WallClock& wallClock, SupervisionSettings supervision)
    : m_clock(clock), m_wallClock(wallClock), m_supervision(std::move(supervision))
{
    QObject::connect(&m_ticks, &QTimer::timeout, &m_ticks, [this] { tick(); });
    m_ticks.start(kTick);
    m_pumps.setSingleShot(true);
    QObject::connect(&m_pumps, &QTimer::timeout, &m_pumps, [this] {
        for (const auto& line : m_lines)
            line->pumpRequests();
    });
}

Lines::~Lines()
{
    for (const Retiring& worker : m_retiring)
        ::kill(worker.pid, SIGKILL);
}

const LineSettings& Lines::line(int index) const
{
    return m_lines.at(static_cast<std::size_t>(index))->settings();
}

const GatewayValue& Lines::latest(int line, int variable) const
{
    return m_lines.at(static_cast<std::size_t>(line))->image().value(variable);
}

qint64 Lines::ageMs(int line, int variable) const
{
    return m_lines.at(static_cast<std::size_t>(line))->image().ageMs(variable);
}

Json Lines::status(int line) const
{
    return m_lines.at(static_cast<std::size_t>(line))->status();
}

// The timer lets the caller return before the answer comes.
qint64 Lines::ask(int line, Json request, const Answer& answer)
{
    const qint64 id = ++m_lastAsked;
    m_lines.at(static_cast<std::size_t>(line))->ask(id, std::move(request), answer);
    m_pumps.start(0);
    return id;
}

void Lines::cancel(qint64 asked)
{
    for (const auto& line : m_lines) {
        if (line->cancel(asked))
            return;
    }
}

// New workers wait for those that end: they may need the same device.
void Lines::tick()
{
    reapRetiring();
    for (const auto& line : m_lines)
        line->tick(m_retiring.empty() && !m_stopped);
}

void Lines::reapRetiring()
{
    const Duration now = m_clock.now();
    for (Retiring& worker : m_retiring) {
        if (now < worker.killAt || worker.isKilled)
            continue;
        worker.isKilled = true;
        ::kill(worker.pid, SIGKILL);
    }
    m_retiring.erase(
        std::remove_if(m_retiring.begin(), m_retiring.end(),
                       [](const Retiring& worker) { return endOf(worker.pid).has_value(); }),
        m_retiring.end());
}

void Lines::retire(SupervisedLine& line, const QString& reason)
{
    const int pid = line.retire(reason);
    if (pid > 0)
        m_retiring.push_back({pid, m_clock.now() + m_supervision.timeToEnd, false});
}

void Lines::stop()
{
    m_stopped = true;
    for (const auto& line : m_lines)
        retire(*line, QStringLiteral("the service ends"));
}

std::unique_ptr<SupervisedLine> Lines::takeUnchanged(const LineSettings& settings)
{
    for (auto& line : m_lines) {
        if (line && isSame(line->settings(), settings))
            return std::exchange(line, nullptr);
    }
    return nullptr;
}

void Lines::setLines(const QVector<LineSettings>& lines)
{
    LineList old;
    LineList next;
    bool changed = m_lines.size() != static_cast<std::size_t>(lines.size());
    for (int i = 0; i < lines.size(); ++i) {
        const auto at = static_cast<std::size_t>(i);
        changed = changed || !m_lines[at] || !isSame(m_lines[at]->settings(), lines.at(i));
        next.push_back(nullptr);
    }
    if (!changed)
        return;
    for (int i = 0; i < lines.size(); ++i)
        next[static_cast<std::size_t>(i)] = takeUnchanged(lines.at(i));
    for (auto& line : m_lines) {
        if (line)
            old.push_back(std::move(line));
    }
    SupervisedLine::Owner& owner = *this;
    for (int i = 0; i < lines.size(); ++i) {
        auto& line = next[static_cast<std::size_t>(i)];
        if (line)
            continue;
        line = std::make_unique<SupervisedLine>(owner, lines.at(i), m_clock, m_wallClock,
                                                m_supervision);
        for (const auto& before : old) {
            if (before->settings().name == lines.at(i).name)
                line->keepValues(*before);
        }
    }
    m_lines = std::move(next);
    // Answers may ask again: they find the new lines.
    for (const auto& line : old)
        retire(*line, QStringLiteral("the configuration of this line changed"));
    tellAll([](LineListener& listener) { listener.handleReload(); });
    tick();
}

void Lines::handleValue(const SupervisedLine& line, int variable)
{
    const auto found = std::find_if(m_lines.begin(), m_lines.end(), [&line](const auto& candidate) {
        return candidate.get() == &line;
    });
    if (found == m_lines.end())
        return;
    const int index = static_cast<int>(found - m_lines.begin());
    tellAll([&](LineListener& listener) { listener.handleValue(index, variable); });
}

void Lines::handleEvent(const LineEvent& event)
{
    tellAll([&](LineListener& listener) { listener.handleEvent(event); });
}

void Lines::handleNotice(const LineEvent& event)
{
    tellAll([&](LineListener& listener) { listener.handleNotice(event); });
}

void Lines::reportWrite(const JournalEntry& entry)
{
    tellAll([&](LineListener& listener) { listener.handleWrite(entry); });
}

void Lines::addListener(LineListener& listener)
{
    m_listeners.push_back(&listener);
}

void Lines::removeListener(LineListener& listener)
{
    std::replace(m_listeners.begin(), m_listeners.end(), &listener,
                 static_cast<LineListener*>(nullptr));
    if (m_telling == 0)
        m_listeners.erase(std::remove(m_listeners.begin(), m_listeners.end(), nullptr),
                          m_listeners.end());
}

// A listener may add and remove listeners.
template<typename Tell> void Lines::tellAll(Tell tell)
{
    ++m_telling;
    for (std::size_t i = 0; i < m_listeners.size(); ++i) {
        if (m_listeners[i])
            tell(*m_listeners[i]);
    }
    if (--m_telling == 0)
        m_listeners.erase(std::remove(m_listeners.begin(), m_listeners.end(), nullptr),
                          m_listeners.end());
}

} // namespace micro850::gateway
