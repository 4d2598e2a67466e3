#include "AttachedPlant.h"

#include "PlantTexts.h"
#include "TimedRuns.h"

#include <algorithm>

namespace micro850::host {

namespace {

const std::chrono::seconds kRefusedPause(10);
const std::chrono::seconds kUnansweredPause(1);
// A variable that is read only once is read again only after a new connection.
const std::chrono::hours kOnce(24 * 365);
// Where there are fast runs, one of them is read after so many others.
const int kTimedInRow = 5;
const double kShareOfTimed = 5.0 / 6;
const Duration kNever = Duration::max();

Duration intervalOf(const Variable& variable)
{
    if (variable.poll == PollMode::Once)
        return kOnce;
    return std::chrono::milliseconds(variable.intervalMs.value_or(0));
}

} // namespace

AttachedPlant::AttachedPlant(PollLoop& loop, const Project& project, const Clock& clock)
    : m_loop(loop), m_project(project), m_clock(clock), m_values(project)
{
    for (const StationSettings& station : project.stations)
        m_loop.addStation(station);
    for (int i = 0; i < project.variables.size(); ++i) {
        const Variable& variable = project.variables.at(i);
        if (isDisabled(variable.station))
            m_values.setError(
                i, QStringLiteral("station %1 is disabled in the project").arg(variable.station));
        else
            m_tags[{variable.station, variable.tag}].variables.append(i);
        m_aliveSince.insert(variable.station, std::nullopt);
    }
}

AttachedPlant::~AttachedPlant()
{
    AttachedPlant::finish();
}

bool AttachedPlant::isDisabled(int number) const
{
    return std::any_of(m_project.stations.begin(), m_project.stations.end(),
                       [number](const StationSettings& station) {
                           return station.number == number && !station.enabled;
                       });
}

void AttachedPlant::finish()
{
    if (m_operation != 0)
        m_loop.abandon(m_operation);
    m_operation = 0;
}

void AttachedPlant::step()
{
    ask();
    m_loop.step();
    collect();
}

// One operation at a time, so that whatever else is asked for waits for one transaction at most.
void AttachedPlant::ask()
{
    const Duration now = m_clock.now();
    m_askedAt = now;
    if (m_operation != 0)
        return;
    watchStations(now);
    readmit(now);
    if (askForType(now))
        return;
    if (m_mustPlan)
        plan(now);
    m_run = nextRun(now);
    if (m_run)
        m_operation = m_loop.read(m_run->tag, m_run->element, m_run->elements);
}

// What was read before a new connection, or before the line was opened again, is no longer known to
// be true.
void AttachedPlant::watchStations(Duration now)
{
    for (auto seen = m_aliveSince.begin(); seen != m_aliveSince.end(); ++seen) {
        const std::optional<Duration> since = m_loop.aliveSince(seen.key());
        if (since && since != *seen)
            m_schedule.restart(seen.key(), now);
        *seen = since;
    }
}

void AttachedPlant::readmit(Duration now)
{
    for (auto left = m_leftOut.begin(); left != m_leftOut.end();) {
        const bool over = *left <= now;
        m_mustPlan = m_mustPlan || over;
        left = over ? m_leftOut.erase(left) : std::next(left);
    }
}

bool AttachedPlant::askForType(Duration now)
{
    const auto due = std::find_if(m_tags.begin(), m_tags.end(), [now](const ShownTag& tag) {
        return !tag.type && tag.askAt <= now;
    });
    if (due == m_tags.end())
        return false;
    m_run.reset();
    m_operation = m_loop.learn(due.key());
    return true;
}

void AttachedPlant::plan(Duration now)
{
    m_mustPlan = false;
    m_fast.clear();
    QVector<TimedRun> runs;
    for (int i = 0; i < m_project.variables.size(); ++i) {
        const Variable& variable = m_project.variables.at(i);
        const auto tag = m_tags.constFind({variable.station, variable.tag});
        if (tag == m_tags.constEnd() || !tag->type || m_leftOut.contains(i))
            continue;
        const Duration interval = intervalOf(variable);
        (interval > Duration(0) ? runs : m_fast) +=
            timedRuns(variable, {i, tag->type, tag->mergeable}, interval);
    }
    m_schedule.setShare(m_fast.isEmpty() ? 1 : kShareOfTimed);
    m_schedule.plan(runs, now);
}

std::optional<TimedRun> AttachedPlant::nextRun(Duration now)
{
    m_isFast = false;
    if (m_fast.isEmpty() || m_timedInRow < kTimedInRow) {
        if (std::optional<TimedRun> run = m_schedule.next(now)) {
            ++m_timedInRow;
            return run;
        }
    }
    m_timedInRow = 0;
    if (m_fast.isEmpty())
        return std::nullopt;
    m_isFast = true;
    m_nextFast = (m_nextFast + 1) % m_fast.size();
    return m_fast.at(m_nextFast);
}

void AttachedPlant::collect()
{
    const Operation* const outcome = m_operation != 0 ? m_loop.outcome(m_operation) : nullptr;
    if (!outcome)
        return;
    const Operation done = *outcome;
    m_loop.forget(m_operation);
    m_operation = 0;
    if (m_run)
        handleRead(done, m_clock.now());
    else
        handleType(done, m_clock.now());
    m_overload.note(m_schedule.load(), m_project);
}

void AttachedPlant::handleType(const Operation& done, Duration now)
{
    ShownTag& shown = m_tags[done.tag];
    const Tag tag = m_loop.tag(done.tag);
    if (tag.type) {
        shown.type = tag.type;
        m_mustPlan = true;
        for (const int variable : shown.variables) {
            const QString problem = typeProblem(m_project.variables.at(variable), *tag.type);
            if (!problem.isEmpty())
                refuse(variable, problem, kNever);
        }
        return;
    }
    const bool isFinal = done.state == Operation::State::Done; // its values cannot be shown
    const bool refused = isFinal || done.state == Operation::State::Refused;
    shown.askAt = isFinal ? kNever : now + (refused ? kRefusedPause : kUnansweredPause);
    for (const int variable : refused ? shown.variables : QVector<int>())
        m_values.setError(variable, isFinal ? tag.error : done.error);
}

void AttachedPlant::handleRead(const Operation& done, Duration now)
{
    const TimedRun run = *m_run;
    ShownTag& shown = m_tags[run.tag];
    if (done.state == Operation::State::Done) {
        if (m_isFast)
            m_schedule.noteOther(now, now - m_askedAt);
        else
            m_schedule.noteAnswer(now, now - m_askedAt);
        m_values.store(run.tag, run.element, *shown.type, done.result, now);
        return;
    }
    if (!m_isFast)
        m_schedule.noteFailure(now);
    if (done.state != Operation::State::Refused)
        return;
    if (run.variable >= 0)
        refuse(run.variable, done.error, now + kRefusedPause);
    else // one of those that were merged reaches beyond the tag
        shown.mergeable = false;
    m_mustPlan = true;
}

void AttachedPlant::refuse(int variable, const QString& why, Duration until)
{
    m_values.setError(variable, why);
    m_leftOut[variable] = until;
}

Duration AttachedPlant::wakeAt() const
{
    if (m_operation != 0 || m_mustPlan || !m_fast.isEmpty())
        return Duration(0);
    Duration at = m_schedule.isEmpty() ? kNever : m_schedule.wakeAt();
    for (const ShownTag& tag : m_tags) {
        if (!tag.type)
            at = std::min(at, tag.askAt);
    }
    for (const Duration until : m_leftOut)
        at = std::min(at, until);
    return at;
}

Quality AttachedPlant::quality(int variable) const
{
    return m_values.quality(variable, m_clock.now(),
                            m_loop.aliveSince(m_project.variables.at(variable).station));
}

LineFigures AttachedPlant::figures() const
{
    LineFigures figures = m_loop.figures();
    figures.percentAsked = 100 * m_schedule.load().share;
    figures.overload = m_overload.text();
    return figures;
}

} // namespace micro850::host
