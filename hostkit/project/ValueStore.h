#ifndef MICRO850_HOST_VALUESTORE_H
#define MICRO850_HOST_VALUESTORE_H

#include "Elements.h"
#include "Project.h"
#include "Scaling.h"
#include "TagKey.h"

#include <QtCore/QHash>
#include <QtCore/QSet>
#include <QtCore/QStringList>

#include <limits>
#include <optional>

namespace micro850::host {

/// How far a value can be trusted.
enum class Quality { Never, Good, Stale };
/// "never", "good" or "stale".
QString qualityText(Quality quality);

/// Why a variable is not read from a tag of this type: it is not the project's, or not every
/// element can be reached. Empty when it is read.
QString typeProblem(const Variable& variable, const CipType& type);

/// The age from which a value is stale: the project's, but longer for a variable that is read
/// seldom, which would be stale between two reads.
std::chrono::milliseconds staleAfter(const Project& project, const Variable& variable);

/// The latest values of a project's variables, with the time of the reply that brought each
/// element.
class ValueStore
{
public:
    explicit ValueStore(const Project& project);

    /// Stores a run of a tag's elements in every variable that shows some of them.
    void store(const TagKey& tag, int element, const CipType& type, const QByteArray& bytes,
               Duration now);
    /// Records why a variable has no fresh value. Good replies clear it once they have brought all
    /// of its elements: one that another variable asked for may bring only some.
    void setError(int variable, const QString& error);

    int size() const { return m_states.size(); }
    /// The type that the controller gave, null before the first value.
    const CipType* type(int variable) const { return m_states.at(variable).type; }
    QString error(int variable) const { return m_states.at(variable).error; }
    bool wasRead(int variable) const { return m_states.at(variable).missing == 0; }
    /// When the oldest of its elements was refreshed; none when one never was.
    std::optional<Duration> refreshedAt(int variable) const;
    /// `aliveSince` is when the variable's station was last connected over the open line, none
    /// while it is not. A value from before that time is stale: the controller may have restarted.
    Quality quality(int variable, Duration now, std::optional<Duration> aliveSince) const;
    /// All elements in the controller's byte order; empty until each was read.
    QByteArray bytes(int variable) const;
    /// The elements that were read, as Scaling::shown() gives them.
    QVector<CipValue> values(int variable) const;
    /// All elements in that form, as text; "?" for one that was never read.
    QStringList texts(int variable) const;
    /// One line for people: the value, or "[a, b, c]" of several elements, and the unit; "" before
    /// the first.
    QString text(int variable) const;
    /// The same without the unit, and at most so many elements of an array.
    QString bareText(int variable, int mostElements = std::numeric_limits<int>::max()) const;
    /// One element for people, without the unit; "?" for one that was never read.
    QString elementText(int variable, int index) const;
    /// An element as a number, scaled; true counts as 1. NaN before the first value and for texts
    /// and bits.
    double number(int variable, int index = 0) const;

    /// The variables whose value or error changed since the last call.
    QSet<int> popChanged();

private:
    struct State
    {
        const CipType* type = nullptr;
        QVector<QByteArray> elements;
        QVector<std::optional<Duration>> times;
        int missing = 0;
        QString error;
        QSet<int> failed; ///< elements that no reply has brought since the error
    };
    CipValue value(int variable, int index) const;
    static bool storeElement(State& state, int index, const char* bytes, int size, Duration now);
    void clearError(int variable, int first, int end);

    const Project& m_project;
    QVector<State> m_states;
    QHash<TagKey, QVector<int>> m_variablesOf;
    QSet<int> m_changed;
};

} // namespace micro850::host

#endif
