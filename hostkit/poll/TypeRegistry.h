#ifndef MICRO850_HOST_TYPEREGISTRY_H
#define MICRO850_HOST_TYPEREGISTRY_H

#include "ReadPlan.h"
#include "TagKey.h"
#include "ValueStore.h"

#include <QtCore/QHash>
#include <QtCore/QMap>

#include <optional>
#include <set>

namespace micro850::host {

/// What the host knows of a tag. The driver's store has only classes of types, so that the host
/// learns the type from the first good reply.
struct Tag
{
    enum class State {
        Unknown,
        Asking, ///< a request for its type is under way
        Known,  ///< for good
        Refused ///< by the controller
    };
    State state = State::Unknown;
    /// CIP type code of the first good reply.
    quint16 typeCode = 0;
    /// The elementary type; null while it is unknown, and for a type whose values are not shown.
    const CipType* type = nullptr;
    /// Why the controller refused the tag, or why its values are not shown.
    QString error;
    /// When the type may be asked for again.
    Duration retryAt{0};
    /// The area that writes to the tag carry.
    int area = 0;
    /// False once the controller refused a request that spans several variables. One of them then
    /// reaches beyond the tag, so that each is read by a request of its own.
    bool mergeable = true;

    bool isOf(quint16 code) const { return state == State::Known && typeCode == code; }
};

/// The types of tags, and what the controller refuses: which tags, and which variables are left out
/// of the cycle until when.
class TypeRegistry
{
public:
    /// Knows the variables' tags only after declare(). Reasons why a variable is not read go into
    /// `values`. The arguments must live longer than this object.
    TypeRegistry(const Project& project, const Clock& clock, ValueStore& values);

    /// Makes a tag known. False when it was known before.
    bool declare(const TagKey& key);
    /// A tag in state Unknown when it was never declared.
    Tag tag(const TagKey& key) const { return m_tags.value(key); }
    /// Null when it was never declared. Valid until the next change of the registry.
    const Tag* find(const TagKey& key) const;
    bool isKnown(const TagKey& key) const;
    /// The first tag of a station by its name.
    std::optional<TagKey> firstTagOf(int station) const;
    /// The variables that show elements of a tag.
    QVector<int> variablesOf(const TagKey& key) const { return m_variablesOf.value(key); }

    /// The tags of variables whose type is to be asked for now.
    QVector<TagKey> tagsToAskFor() const;
    /// The type of the tag is being asked for.
    void markAsking(const TagKey& key);
    /// Nobody answered the request for the type: it may be asked for again after a second.
    void markUnanswered(const TagKey& key);
    /// Learns the type of a tag from a good reply. A second, different type withdraws the first
    /// one: the driver keeps the first for good. True when something changed.
    bool learn(const TagKey& key, quint16 typeCode);
    /// A tag whose first type was withdrawn. None of them is read or written any more.
    const std::optional<TagKey>& changedTag() const { return m_changedTag; }
    /// The controller refused a tag whose type is not known. It may be asked for again after ten
    /// seconds, because a program download may bring the tag.
    void refuseTag(const TagKey& key, const QString& why);

    /// The type by which a variable can be read; null while it is unknown or the variable is left
    /// out.
    const CipType* readableType(int variable) const;
    /// Leaves a variable out for ten seconds, because the controller refused it.
    void refuseVariable(int variable, const QString& why);
    /// The tag's variables are no longer read by requests that span several of them.
    void forbidMerging(const TagKey& key) { m_tags[key].mergeable = false; }
    /// Lets variables back whose time is over. True when there was one.
    bool readmitVariables();
    /// What to read in a cycle now, in the order of the project.
    QVector<CyclicRead> cyclicReads() const;

private:
    void checkVariable(int variable, const Tag& tag);
    void enter(const TagKey& key, Tag& tag, Tag::State state);

    const Project& m_project;
    const Clock& m_clock;
    ValueStore& m_values;
    QHash<TagKey, Tag> m_tags;
    QHash<TagKey, QVector<int>> m_variablesOf;
    /// The variables' tags in state Unknown or Refused, in the order in which they are asked for.
    std::set<TagKey> m_open;
    std::optional<TagKey> m_changedTag;
    QMap<int, Duration> m_leftOut; ///< variables that are not read, and until when
};

} // namespace micro850::host

#endif
