#ifndef MICRO850_GATEWAY_LINES_VARIABLEINDEX_H
#define MICRO850_GATEWAY_LINES_VARIABLEINDEX_H

#include "LineService.h"
#include "TagKey.h"

#include <QtCore/QHash>
#include <QtCore/QVector>

namespace micro850::gateway {

/// Where a variable is.
struct VariablePlace
{
    int line = 0;
    int variable = 0;
};

/// All variables of all lines, numbered from 0 on, and found by their names and their tags.
class VariableIndex
{
public:
    explicit VariableIndex(const LineService& lines) : m_lines(lines) { rebuild(); }

    /// Call it when lines and variables have come or gone. Numbers from before are no longer valid.
    void rebuild();

    int size() const { return m_places.size(); }
    int numberOf(int line, int variable) const { return m_first.at(line) + variable; }
    const VariablePlace& place(int number) const { return m_places.at(number); }
    const LineSettings& line(int number) const { return m_lines.line(place(number).line); }
    const host::Variable& variable(int number) const;
    const GatewayValue& latest(int number) const;
    /// The same for variables of the same name that show the same, also after rebuild(); another
    /// one for any others.
    quint64 identity(int number) const { return m_identities.at(number); }

    /// The line of that name; of the empty name the only line. Throws RequestError, which calls it
    /// `key`.
    int lineNamed(const QString& name, const std::string& key) const;
    /// The number of the variable; the line can be empty when only one has such a variable. Throws
    /// RequestError, which calls it `key`.
    int variableNamed(const QString& line, const QString& name, const std::string& key) const;
    /// The numbers of the variables of a line that show this element of a tag.
    QVector<int> variablesAt(int line, const host::TagKey& tag, int element) const;

private:
    std::string guess(const QString& name) const;

    const LineService& m_lines;
    QVector<int> m_first; ///< the number of the first variable of each line
    QVector<VariablePlace> m_places;
    QVector<quint64> m_identities;
    QHash<QString, QVector<int>> m_named;
    QVector<QHash<host::TagKey, QVector<int>>> m_ofTag; ///< for each line
};

} // namespace micro850::gateway

#endif
