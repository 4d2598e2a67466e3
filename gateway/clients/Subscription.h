#ifndef MICRO850_GATEWAY_CLIENTS_SUBSCRIPTION_H
#define MICRO850_GATEWAY_CLIENTS_SUBSCRIPTION_H

#include "ValueTexts.h"

#include <QtCore/QSet>
#include <QtCore/QStringList>

namespace micro850::gateway {

/// Which variables are wanted: those of the names, or else those that match.
struct VariableFilter
{
    QString line; ///< empty: of all lines
    QString match;
    QStringList names;

    /// The numbers of the variables, in their order.
    QVector<int> numbers(const VariableIndex& index) const;
};

/// What one client wants to be told: the newest value of each variable that waits for it, never
/// more than one of a variable.
class Subscription
{
public:
    /// All values wait at first.
    Subscription(int id, VariableFilter filter, bool ages, const VariableIndex& index);

    int id() const { return m_id; }
    bool wantsAges() const { return m_ages; }
    bool hasLine(const QString& name) const { return m_lines.contains(name); }
    const QVector<int>& members() const { return m_members; }

    bool isMember(int number) const { return m_states.at(number) != State::NotWanted; }
    /// True when a change of the variable waits that a further one would replace.
    bool hasChange(int number) const { return m_states.at(number) == State::Changed; }
    /// A variable has a new value. One that waits is left out, and counted.
    void add(int number);
    bool isEmpty() const { return m_waiting.isEmpty(); }
    /// Takes what waits as the line of an event, so that it has about `most` bytes.
    QByteArray take(ValueTexts& texts, int most);

    /// Chooses anew among the variables of a rebuilt index. Values of variables that were told and
    /// are the same do not wait again.
    void choose(const VariableIndex& index);

private:
    enum class State : quint8 {
        NotWanted,
        Told,
        First,  ///< waits for the first time
        Changed ///< a change waits
    };

    int m_id;
    VariableFilter m_filter;
    bool m_ages;
    QVector<int> m_members;
    QVector<quint64> m_identities; ///< of the members
    QSet<QString> m_lines;
    QVector<State> m_states; ///< of all variables
    QVector<int> m_waiting;  ///< in the order in which they changed
    int m_taken = 0;         ///< of those
    qint64 m_leftOut = 0;
};

} // namespace micro850::gateway

#endif
