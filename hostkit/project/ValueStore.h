#ifndef MICRO850_HOST_VALUESTORE_H
#define MICRO850_HOST_VALUESTORE_H

#include "Project.h"
#include "TagDirectory.h"

#include <QtCore/QSet>
#include <QtCore/QStringList>

#include <optional>

namespace micro850::host {

/// How far a value can be trusted.
enum class Quality { Never, Good, Stale };

/// The values of a project's variables, with the time of the reply that brought each element.
class ValueStore
{
public:
    explicit ValueStore(const Project& project);

    /// Takes a run of a tag's elements into every variable that shows some of them.
    void store(const TagKey& tag, int element, const CipType& type, const QByteArray& bytes,
               Duration now);
    /// Notes why a variable has no fresh value; the next good reply clears it.
    void setError(int variable, const QString& error);

    int size() const { return m_states.size(); }
    /// The type that the controller gave, null before the first value.
    const CipType* type(int variable) const { return m_states.at(variable).type; }
    QString error(int variable) const { return m_states.at(variable).error; }
    bool wasRead(int variable) const { return m_states.at(variable).missing == 0; }
    /// When the oldest of its elements was refreshed; none when one never was.
    std::optional<Duration> refreshedAt(int variable) const;
    /// `alive` says whether the variable's station answers.
    Quality quality(int variable, Duration now, bool alive) const;
    /// Its elements as text, scaled where the project says so.
    QStringList texts(int variable) const;
    /// One line: the value, or "[a, b, c]" of several elements, and the unit; "" before the first.
    QString text(int variable) const;
    /// The first element as a number, scaled; NaN before the first value and for what is none.
    double number(int variable) const;
    /// The elements' bytes, in the controller's order.
    const QVector<QByteArray>& elements(int variable) const
    {
        return m_states.at(variable).elements;
    }

    /// The variables whose value or error changed since the last call.
    QSet<int> takeChanged();

private:
    struct State
    {
        const CipType* type = nullptr;
        QVector<QByteArray> elements;
        QVector<std::optional<Duration>> times;
        int missing = 0;
        QString error;
    };
    using ElementText = QString(const CipType& type, const QByteArray& element);
    QStringList textsBy(ElementText* elementText, int variable) const;
    void storeElement(int variable, int index, const char* bytes, int size, Duration now);

    const Project& m_project;
    QVector<State> m_states;
    QMap<TagKey, QVector<int>> m_variablesOf;
    QSet<int> m_changed;
};

/// The elements' bytes in a run of value bytes; a string is the whole run.
QVector<QByteArray> elementsOf(const CipType& type, const QByteArray& bytes);
/// The value of a number's element, as the variable shows it.
double scaled(const Variable& variable, const CipType& type, const QByteArray& element);
/// One element as text. Characters are Latin-1 on the wire.
QString elementText(const CipType& type, const QByteArray& element);
/// The same for a person: a duration in days, hours, minutes and seconds, as it is written.
QString shownText(const CipType& type, const QByteArray& element);
/// The wire bytes of one element from a text. Throws UserError.
QByteArray elementFromText(const CipType& type, const QString& text);

} // namespace micro850::host

#endif
