#include "TypeRegistry.h"

namespace micro850::host {

namespace {

const std::chrono::seconds kRefusedPause(10);
const std::chrono::seconds kUnansweredPause(1);
const Duration kNever = Duration::max();

} // namespace

TypeRegistry::TypeRegistry(const Project& project, const Clock& clock, ValueStore& values)
    : m_project(project), m_clock(clock), m_values(values)
{
    for (int i = 0; i < project.variables.size(); ++i) {
        const Variable& variable = project.variables.at(i);
        const TagKey key = {variable.station, variable.tag};
        m_variablesOf[key].append(i);
        m_open.insert(key);
    }
}

const Tag* TypeRegistry::find(const TagKey& key) const
{
    const auto found = m_tags.constFind(key);
    return found != m_tags.constEnd() ? &*found : nullptr;
}

bool TypeRegistry::isKnown(const TagKey& key) const
{
    const Tag* const tag = find(key);
    return tag && tag->state == Tag::State::Known;
}

void TypeRegistry::enter(const TagKey& key, Tag& tag, Tag::State state)
{
    tag.state = state;
    const bool open = state == Tag::State::Unknown || state == Tag::State::Refused;
    if (open && m_variablesOf.contains(key))
        m_open.insert(key);
    else
        m_open.erase(key);
}

bool TypeRegistry::declare(const TagKey& key)
{
    if (m_tags.contains(key))
        return false;
    Tag tag;
    tag.area = m_tags.size() + 1;
    for (const int variable : variablesOf(key)) {
        const int area = m_project.variables.at(variable).area;
        tag.area = area != 0 ? area : tag.area;
    }
    m_tags.insert(key, tag);
    return true;
}

std::optional<TagKey> TypeRegistry::firstTagOf(int station) const
{
    std::optional<TagKey> first;
    for (auto tag = m_tags.constBegin(); tag != m_tags.constEnd(); ++tag) {
        if (tag.key().station == station && (!first || tag.key() < *first))
            first = tag.key();
    }
    return first;
}

QVector<TagKey> TypeRegistry::tagsToAskFor() const
{
    const Duration now = m_clock.now();
    QVector<TagKey> due;
    for (const TagKey& key : m_open) {
        const Tag* const tag = find(key);
        if (!tag || tag->retryAt <= now)
            due.append(key);
    }
    return due;
}

void TypeRegistry::markAsking(const TagKey& key)
{
    Tag& tag = m_tags[key];
    if (tag.state != Tag::State::Known)
        enter(key, tag, Tag::State::Asking);
}

void TypeRegistry::markUnanswered(const TagKey& key)
{
    Tag& tag = m_tags[key];
    if (tag.state != Tag::State::Asking)
        return;
    enter(key, tag, Tag::State::Unknown);
    tag.retryAt = m_clock.now() + kUnansweredPause;
}

bool TypeRegistry::learn(const TagKey& key, quint16 typeCode)
{
    Tag& tag = m_tags[key];
    if (tag.isOf(typeCode))
        return false;
    if (tag.state != Tag::State::Known) {
        tag.typeCode = typeCode;
        tag.type = cipTypeOf(typeCode);
        tag.error = tag.type ? QString()
                             : QStringLiteral("type %1 is not an elementary type")
                                   .arg(typeCode, 4, 16, QLatin1Char('0'));
    } else {
        m_changedTag = key;
        tag.type = nullptr;
        tag.error = QStringLiteral("type changed in the controller (start again to take it over)");
    }
    enter(key, tag, Tag::State::Known);
    for (const int variable : variablesOf(key))
        checkVariable(variable, tag);
    return true;
}

// A variable whose type is not the one in the project, or that cannot be reached, is never read: a
// value is never guessed.
void TypeRegistry::checkVariable(int variable, const Tag& tag)
{
    const Variable& asked = m_project.variables.at(variable);
    QString error = tag.error;
    if (error.isEmpty())
        error = typeProblem(asked, *tag.type);
    if (error.isEmpty())
        return;
    m_values.setError(variable, error);
    m_leftOut[variable] = kNever;
}

void TypeRegistry::refuseTag(const TagKey& key, const QString& why)
{
    Tag& tag = m_tags[key];
    enter(key, tag, Tag::State::Refused);
    tag.error = why;
    tag.retryAt = m_clock.now() + kRefusedPause;
    for (const int variable : variablesOf(key))
        m_values.setError(variable, why);
}

const CipType* TypeRegistry::readableType(int variable) const
{
    const Variable& asked = m_project.variables.at(variable);
    const Tag* const tag = find({asked.station, asked.tag});
    return tag && !m_leftOut.contains(variable) ? tag->type : nullptr;
}

void TypeRegistry::refuseVariable(int variable, const QString& why)
{
    m_values.setError(variable, why);
    m_leftOut[variable] = m_clock.now() + kRefusedPause;
}

bool TypeRegistry::readmitVariables()
{
    const Duration now = m_clock.now();
    const int before = m_leftOut.size();
    for (auto left = m_leftOut.begin(); left != m_leftOut.end();)
        left = left.value() <= now ? m_leftOut.erase(left) : left + 1;
    return m_leftOut.size() != before;
}

QVector<CyclicRead> TypeRegistry::cyclicReads() const
{
    QVector<CyclicRead> reads;
    for (int i = 0; i < m_project.variables.size(); ++i) {
        const Variable& variable = m_project.variables.at(i);
        const Tag* const tag = find({variable.station, variable.tag});
        const bool readable = tag && tag->type && !m_leftOut.contains(i);
        if (readable && variable.poll == PollMode::Cyclic)
            reads.append({i, tag->type, tag->mergeable});
    }
    return reads;
}

} // namespace micro850::host
