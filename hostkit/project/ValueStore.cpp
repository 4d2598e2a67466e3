#include "ValueStore.h"

#include "Duration.h"
#include "UserError.h"

#include <algorithm>
#include <limits>

namespace micro850::host {

namespace {

// Value text that the types themselves know: of a duration the number of its units.
std::string plainValue(const CipType& type, const QString& text)
{
    const int perUnit = microsecondsPerUnit(type);
    const bool duration = perUnit != 0 && text.contains('P');
    if (!duration) {
        if (QString::fromLatin1(text.toLatin1()) == text)
            return text.toLatin1().toStdString();
        throw UserError('"' + text.toStdString() + "\" is not a value of type " + type.name +
                        " (characters up to U+00FF)");
    }
    const std::optional<qint64> microseconds = durationFromText(text);
    if (microseconds && *microseconds % perUnit == 0)
        return std::to_string(*microseconds / perUnit);
    throw UserError('"' + text.toStdString() + "\" is not a value of type " + type.name +
                    " (an ISO 8601 duration of whole " +
                    (perUnit == 1 ? "microseconds" : "milliseconds") +
                    ", such as PT2.5S or P1DT12H)");
}

} // namespace

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
    for (const int i : m_variablesOf.value(tag)) {
        const Variable& variable = m_project.variables.at(i);
        const int first = std::max(element, variable.element);
        const int end = std::min(element + elements, variable.element + variable.length);
        if (first >= end || (variable.type && variable.type != &type))
            continue;
        m_states[i].type = &type;
        for (int at = first; at < end; ++at)
            storeElement(i, at - variable.element,
                         bytes.constData() + static_cast<qptrdiff>(at - element) * size, size, now);
        if (!m_states.at(i).error.isEmpty())
            setError(i, QString());
    }
}

// Most values are the ones that were there before: those are compared, not copied.
void ValueStore::storeElement(int variable, int index, const char* bytes, int size, Duration now)
{
    State& state = m_states[variable];
    const QByteArray& old = state.elements.at(index);
    const bool first = !state.times.at(index);
    if (first)
        --state.missing;
    if (first || old.size() != size || !std::equal(old.begin(), old.end(), bytes)) {
        m_changed.insert(variable);
        state.elements[index] = QByteArray(bytes, size);
    }
    state.times[index] = now;
}

void ValueStore::setError(int variable, const QString& error)
{
    if (m_states.at(variable).error == error)
        return;
    m_states[variable].error = error;
    m_changed.insert(variable);
}

std::optional<Duration> ValueStore::refreshedAt(int variable) const
{
    const QVector<std::optional<Duration>>& times = m_states.at(variable).times;
    return *std::min_element(times.begin(), times.end());
}

Quality ValueStore::quality(int variable, Duration now, bool alive) const
{
    if (!wasRead(variable))
        return Quality::Never;
    const bool refreshed = m_project.variables.at(variable).poll == PollMode::Cyclic;
    const bool old = refreshed && now - *refreshedAt(variable) >
                                      std::chrono::milliseconds(m_project.staleAfterMs);
    return alive && !old && error(variable).isEmpty() ? Quality::Good : Quality::Stale;
}

QStringList ValueStore::texts(int variable) const
{
    return textsBy(elementText, variable);
}

QStringList ValueStore::textsBy(ElementText* elementText, int variable) const
{
    const State& state = m_states.at(variable);
    const Variable& asked = m_project.variables.at(variable);
    QStringList texts;
    for (int i = 0; i < state.elements.size(); ++i) {
        if (!state.times.at(i))
            texts += QStringLiteral("?");
        else if (asked.isScaled() && isNumber(*state.type))
            texts += QString::number(scaled(asked, *state.type, state.elements.at(i)), 'g', 9);
        else
            texts += elementText(*state.type, state.elements.at(i));
    }
    return texts;
}

QString ValueStore::text(int variable) const
{
    const State& state = m_states.at(variable);
    if (state.missing == state.elements.size())
        return QString();
    const QStringList all = textsBy(shownText, variable);
    const QString text = all.size() == 1 ? all.first() : '[' + all.join(QStringLiteral(", ")) + ']';
    const QString unit = m_project.variables.at(variable).unit;
    return unit.isEmpty() ? text : text + ' ' + unit;
}

double ValueStore::number(int variable) const
{
    const State& state = m_states.at(variable);
    const double none = std::numeric_limits<double>::quiet_NaN();
    if (!state.times.first())
        return none;
    if (state.type->kind == CipKind::Boolean)
        return state.elements.first().startsWith('\0') ? 0 : 1;
    return isNumber(*state.type)
               ? scaled(m_project.variables.at(variable), *state.type, state.elements.first())
               : none;
}

double scaled(const Variable& variable, const CipType& type, const QByteArray& element)
{
    return elementText(type, element).toDouble() * variable.gain + variable.offset;
}

QSet<int> ValueStore::takeChanged()
{
    QSet<int> changed;
    changed.swap(m_changed);
    return changed;
}

QVector<QByteArray> elementsOf(const CipType& type, const QByteArray& bytes)
{
    QVector<QByteArray> elements;
    if (type.kind == CipKind::String) {
        elements.append(bytes);
        return elements;
    }
    for (int at = 0; at + type.size <= bytes.size(); at += type.size)
        elements.append(bytes.mid(at, type.size));
    return elements;
}

QString elementText(const CipType& type, const QByteArray& element)
{
    const Bytes bytes(element.begin(), element.end());
    return QString::fromLatin1(QByteArray::fromStdString(textFromValue(type, bytes)));
}

QString shownText(const CipType& type, const QByteArray& element)
{
    const QString text = elementText(type, element);
    const int perUnit = microsecondsPerUnit(type);
    const qint64 units = perUnit == 0 ? 0 : text.toLongLong();
    return perUnit == 0 ? text : durationText(units * perUnit);
}

QByteArray elementFromText(const CipType& type, const QString& text)
{
    const Bytes bytes = valueFromText(type, plainValue(type, text));
    return QByteArray(reinterpret_cast<const char*>(bytes.data()), static_cast<int>(bytes.size()));
}

} // namespace micro850::host
