#include "LineImage.h"

#include "UserError.h"
#include "VisibleText.h"

#include <algorithm>

namespace micro850::gateway {

namespace {

using host::Quality;
using host::Variable;

// Longer than any service runs.
const qint64 kOldestMs = qint64(1) << 40;
// The news of a value that got stale has the age of its last reading, to the accuracy of the
// socket. Its stamp stays.
const std::chrono::milliseconds kSameReading(100);

GatewayValue unreadValue(const LineSettings& settings, const Variable& variable)
{
    GatewayValue value;
    value.line = settings.name;
    value.name = variable.name;
    value.station = variable.station;
    value.tag = variable.tag;
    value.element = variable.element;
    value.unit = variable.unit;
    return value;
}

std::optional<Duration> ageOf(const Json& age)
{
    if (age.is_null())
        return std::nullopt;
    if (!age.is_number_integer() || age < 0 || age > kOldestMs)
        throw UserError("an age is no number of milliseconds");
    return std::chrono::milliseconds(age.get<qint64>());
}

// Whether both show the same elements of the same tag in the same way.
bool isSame(const Variable& a, const Variable& b)
{
    return a.tag == b.tag && a.station == b.station && a.type == b.type && a.element == b.element &&
           a.length == b.length && a.gain == b.gain && a.offset == b.offset && a.unit == b.unit &&
           a.raw == b.raw && a.poll == b.poll;
}

} // namespace

LineImage::LineImage(const LineSettings& settings, const Clock& clock, const WallClock& wallClock)
    : m_settings(settings), m_clock(clock), m_wallClock(wallClock)
{
    const QVector<Variable>& variables = settings.project.variables;
    m_states.resize(static_cast<std::size_t>(variables.size()));
    for (int i = 0; i < variables.size(); ++i) {
        at(i).value = unreadValue(settings, variables.at(i));
        m_variables.insert(variables.at(i).name, i);
    }
}

qint64 LineImage::ageMs(int variable) const
{
    const std::optional<Duration>& readAt = at(variable).readAt;
    return readAt ? std::max<qint64>(0, wholeMilliseconds(m_clock.now() - *readAt)) : -1;
}

std::optional<qint64> LineImage::oldestMs() const
{
    std::optional<Duration> oldest;
    for (int i = 0; i < size(); ++i) {
        const std::optional<Duration>& readAt = at(i).readAt;
        const bool isCyclic = m_settings.project.variables.at(i).poll == host::PollMode::Cyclic;
        if (isCyclic && readAt && (!oldest || *readAt < *oldest))
            oldest = readAt;
    }
    return oldest ? std::make_optional<qint64>(wholeMilliseconds(m_clock.now() - *oldest))
                  : std::nullopt;
}

// This process can stand still while a value is on its way, and milliseconds are rounded: a later
// reading never gets an earlier time, unless the wall clock was set back.
qint64 LineImage::stamp(State& state, Duration age) const
{
    const qint64 now = m_wallClock.now();
    const qint64 distance = now - wholeMilliseconds(m_clock.now());
    const bool isSameClock = state.value.time && qAbs(distance - state.clockDistance) <= 1;
    state.clockDistance = distance;
    const qint64 time = now - wholeMilliseconds(age);
    return isSameClock ? std::max(time, *state.value.time) : time;
}

int LineImage::take(const Json& object)
{
    GatewayValue told = host::gatewayValueOf(object);
    const auto found = m_variables.constFind(told.name);
    if (found == m_variables.constEnd())
        throw UserError("the line has no variable " + inQuotes(told.name.toStdString()));
    State& state = at(*found);
    if (told.quality == Quality::Never)
        return takeNever(state, told) ? *found : -1;
    const std::optional<Duration> age = ageOf(object.value("ageMs", Json()));
    if (!age)
        throw UserError("a value has no age");
    const Duration readAt = m_clock.now() - *age;
    const bool readAgain = !state.value.time || state.isKept || told.quality == Quality::Good ||
                           readAt > *state.readAt + kSameReading;
    if (readAgain) {
        state.readAt = readAt;
        told.time = stamp(state, *age);
    } else {
        told.time = state.value.time;
    }
    state.isKept = false;
    const GatewayValue& before = state.value;
    const bool changed = before.bytes != told.bytes || before.type != told.type ||
                         before.quality != told.quality || before.error != told.error ||
                         before.value != told.value;
    told.line = m_settings.name;
    state.value = std::move(told);
    return changed ? *found : -1;
}

// A new worker has not read the variable yet. What an earlier one read remains. It is good until it
// is too old, unless there is a reason why it is not read.
bool LineImage::takeNever(State& state, const GatewayValue& told)
{
    GatewayValue& value = state.value;
    if (value.quality == Quality::Never) {
        const bool changed = value.error != told.error;
        value.error = told.error;
        return changed;
    }
    state.isKept = true;
    if (told.error.isEmpty() || (value.quality == Quality::Stale && value.error == told.error))
        return false;
    value.quality = Quality::Stale;
    value.error = told.error;
    return true;
}

void LineImage::takeAges(int first, const Json& ages)
{
    if (!ages.is_array() || first < 0 || first > size() ||
        ages.size() > static_cast<std::size_t>(size() - first))
        throw UserError("the ages are not those of the line's variables");
    const Duration now = m_clock.now();
    for (int i = 0; i < static_cast<int>(ages.size()); ++i) {
        const std::optional<Duration> age = ageOf(ages.at(static_cast<std::size_t>(i)));
        State& state = at(first + i);
        if (!age || state.value.quality != Quality::Good)
            continue;
        state.isKept = false;
        state.readAt = now - *age;
        state.value.time = stamp(state, *age);
    }
}

QVector<int> LineImage::markStale(const QString& reason)
{
    QVector<int> changed;
    for (int i = 0; i < size(); ++i) {
        GatewayValue& value = at(i).value;
        const Quality quality = value.quality == Quality::Never ? Quality::Never : Quality::Stale;
        if (value.quality == quality && value.error == reason)
            continue;
        value.quality = quality;
        value.error = reason;
        changed.append(i);
    }
    return changed;
}

bool LineImage::isOld(int variable) const
{
    const Variable& source = m_settings.project.variables.at(variable);
    const State& state = at(variable);
    if (state.value.quality != Quality::Good || !state.readAt)
        return false;
    return (source.poll == host::PollMode::Cyclic || state.isKept) &&
           m_clock.now() - *state.readAt > host::staleAfter(m_settings.project, source);
}

QVector<int> LineImage::markOld(bool all)
{
    QVector<int> changed;
    for (int i = 0; i < size(); ++i) {
        if (!(all || at(i).isKept) || !isOld(i))
            continue;
        GatewayValue& value = at(i).value;
        value.quality = Quality::Stale;
        value.error = QStringLiteral("the worker of this line is silent");
        changed.append(i);
    }
    return changed;
}

void LineImage::keepValues(const LineImage& old)
{
    if (m_settings.project.port.device != old.m_settings.project.port.device)
        return; // they are of other controllers
    const QVector<Variable>& variables = m_settings.project.variables;
    for (int i = 0; i < variables.size(); ++i) {
        const auto found = old.m_variables.constFind(variables.at(i).name);
        if (found == old.m_variables.constEnd() ||
            !isSame(variables.at(i), old.m_settings.project.variables.at(*found)))
            continue;
        at(i) = old.at(*found);
        at(i).isKept = true;
    }
}

} // namespace micro850::gateway
