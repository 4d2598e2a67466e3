#include "ValueStore.h"

#include <algorithm>
#include <limits>

namespace micro850::host {

QString qualityText(Quality quality)
{
    switch (quality) {
    case Quality::Never:
        return QStringLiteral("never");
    case Quality::Good:
        return QStringLiteral("good");
    case Quality::Stale:
        break;
    }
    return QStringLiteral("stale");
}

QString typeProblem(const Variable& variable, const CipType& type)
{
    if (variable.type && variable.type != &type)
        return QStringLiteral("is %1 in the controller, %2 in the project")
            .arg(QLatin1String(type.name), QLatin1String(variable.type->name));
    if (type.kind == CipKind::String && (variable.element != 0 || variable.length != 1))
        return QStringLiteral("of a string only element 0 and length 1 can be read");
    return QString();
}

std::chrono::milliseconds staleAfter(const Project& project, const Variable& variable)
{
    return std::chrono::milliseconds(
        std::max<qint64>(project.staleAfterMs, 2LL * variable.intervalMs.value_or(0)));
}

ValueStore::ValueStore(const Project& project) : m_project(project)
{
    for (int i = 0; i < project.variables.size(); ++i) {
        const Variable& variable = project.variables.at(i);
        State state;
        state.elements.resize(variable.length);
        state.times.resize(variable.length);
        state.missing = variable.length;
        m_states.append(state);
        m_variablesOf[{variable.station, variable.tag}].append(i);
    }
}

void ValueStore::store(const TagKey& tag, int element, const CipType& type, const QByteArray& bytes,
                       Duration now)
{
    const bool whole = type.kind == CipKind::String;
    const int size = whole ? bytes.size() : std::max(1, type.size);
    const int elements = whole ? 1 : bytes.size() / size;
    const auto variables = m_variablesOf.constFind(tag);
    if (variables == m_variablesOf.constEnd())
        return;
    for (const int i : *variables) {
        const Variable& variable = m_project.variables.at(i);
        const int first = std::max(element, variable.element);
        const int end = std::min(element + elements, variable.element + variable.length);
        if (first >= end || (variable.type && variable.type != &type))
            continue;
        State& state = m_states[i];
        state.type = &type;
        bool changed = false;
        for (int at = first; at < end; ++at) {
            const char* const value =
                bytes.constData() + static_cast<qptrdiff>(at - element) * size;
            changed = storeElement(state, at - variable.element, value, size, now) || changed;
        }
        if (changed)
            m_changed.insert(i);
        if (!state.error.isEmpty())
            clearError(i, first - variable.element, end - variable.element);
    }
}

// True when the value changed. Most values are the ones that were there before: those are compared,
// not copied.
bool ValueStore::storeElement(State& state, int index, const char* bytes, int size, Duration now)
{
    const QByteArray& old = state.elements.at(index);
    std::optional<Duration>& time = state.times[index];
    const bool first = !time;
    if (first)
        --state.missing;
    time = now;
    const bool changed = first || old.size() != size || !std::equal(old.begin(), old.end(), bytes);
    if (changed)
        state.elements[index] = QByteArray(bytes, size);
    return changed;
}

void ValueStore::setError(int variable, const QString& error)
{
    State& state = m_states[variable];
    for (int i = 0; i < state.elements.size(); ++i)
        state.failed.insert(i);
    if (state.error == error)
        return;
    state.error = error;
    m_changed.insert(variable);
}

void ValueStore::clearError(int variable, int first, int end)
{
    State& state = m_states[variable];
    for (int i = first; i < end; ++i)
        state.failed.remove(i);
    if (!state.failed.isEmpty())
        return;
    state.error.clear();
    m_changed.insert(variable);
}

std::optional<Duration> ValueStore::refreshedAt(int variable) const
{
    const QVector<std::optional<Duration>>& times = m_states.at(variable).times;
    return *std::min_element(times.begin(), times.end());
}

Quality ValueStore::quality(int variable, Duration now, std::optional<Duration> aliveSince) const
{
    if (!wasRead(variable))
        return Quality::Never;
    const Duration at = *refreshedAt(variable);
    const bool alive = aliveSince && at >= *aliveSince;
    const Variable& asked = m_project.variables.at(variable);
    const bool refreshed = asked.poll == PollMode::Cyclic;
    const bool old = refreshed && now - at > staleAfter(m_project, asked);
    return alive && !old && error(variable).isEmpty() ? Quality::Good : Quality::Stale;
}

CipValue ValueStore::value(int variable, int index) const
{
    const State& state = m_states.at(variable);
    const Scaling scaling(m_project.variables.at(variable));
    return scaling.shown(*state.type, decodeElement(*state.type, state.elements.at(index)));
}

QByteArray ValueStore::bytes(int variable) const
{
    QByteArray bytes;
    if (!wasRead(variable))
        return bytes;
    for (const QByteArray& element : m_states.at(variable).elements)
        bytes += element;
    return bytes;
}

QVector<CipValue> ValueStore::values(int variable) const
{
    const State& state = m_states.at(variable);
    QVector<CipValue> values;
    for (int i = 0; i < state.elements.size(); ++i) {
        if (state.times.at(i))
            values.append(value(variable, i));
    }
    return values;
}

QStringList ValueStore::texts(int variable) const
{
    const State& state = m_states.at(variable);
    QStringList texts;
    for (int i = 0; i < state.elements.size(); ++i)
        texts += state.times.at(i) ? valueText(value(variable, i)) : QStringLiteral("?");
    return texts;
}

QString ValueStore::text(int variable) const
{
    const State& state = m_states.at(variable);
    const bool isShown = state.missing < state.elements.size();
    const QString unit = m_project.variables.at(variable).unit;
    return isShown && !unit.isEmpty() ? bareText(variable) + ' ' + unit : bareText(variable);
}

QString ValueStore::bareText(int variable, int mostElements) const
{
    const State& state = m_states.at(variable);
    if (state.missing == state.elements.size())
        return QString();
    const int shown = std::min(state.elements.size(), std::max(1, mostElements));
    QStringList all;
    for (int i = 0; i < shown; ++i)
        all += elementText(variable, i);
    if (state.elements.size() == 1)
        return all.first();
    if (shown < state.elements.size())
        all += QChar(0x2026);
    return '[' + all.join(QStringLiteral(", ")) + ']';
}

QString ValueStore::elementText(int variable, int index) const
{
    const State& state = m_states.at(variable);
    if (!state.times.at(index))
        return QStringLiteral("?");
    const Scaling scaling(m_project.variables.at(variable));
    return scaling.text(*state.type, decodeElement(*state.type, state.elements.at(index)));
}

double ValueStore::number(int variable, int index) const
{
    const State& state = m_states.at(variable);
    const bool counts =
        state.times.at(index) && (isNumber(*state.type) || state.type->kind == CipKind::Boolean);
    return counts ? value(variable, index).number() : std::numeric_limits<double>::quiet_NaN();
}

QSet<int> ValueStore::popChanged()
{
    QSet<int> changed;
    changed.swap(m_changed);
    return changed;
}

} // namespace micro850::host
