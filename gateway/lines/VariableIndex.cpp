#include "VariableIndex.h"

#include "RequestError.h"
#include "UserError.h"
#include "VisibleText.h"

#include <QtCore/QCryptographicHash>
#include <QtCore/QtEndian>

#include <algorithm>

namespace micro850::gateway {

using host::Variable;

namespace {

quint64 identityOf(const LineSettings& line, const Variable& variable)
{
    const QString all =
        QStringLiteral("%1\n%2\n%3\n%4\n%5\n")
            .arg(line.name, line.project.port.device, variable.name, variable.tag, variable.unit) +
        QStringLiteral("%1 %2 %3 %4 %5 %6 %7")
            .arg(variable.station)
            .arg(variable.element)
            .arg(variable.length)
            .arg(variable.gain, 0, 'g', 17)
            .arg(variable.offset, 0, 'g', 17)
            .arg(variable.raw)
            .arg(variable.type ? variable.type->code : 0);
    // The same in each run of the service.
    const QByteArray hash = QCryptographicHash::hash(all.toUtf8(), QCryptographicHash::Sha256);
    return qFromBigEndian<quint64>(hash.constData());
}

} // namespace

void VariableIndex::rebuild()
{
    m_first.clear();
    m_places.clear();
    m_identities.clear();
    m_named.clear();
    m_ofTag.clear();
    for (int line = 0; line < m_lines.size(); ++line) {
        const QVector<Variable>& variables = m_lines.line(line).project.variables;
        m_first.append(m_places.size());
        m_ofTag.append(QHash<host::TagKey, QVector<int>>());
        for (int i = 0; i < variables.size(); ++i) {
            const Variable& variable = variables.at(i);
            const int number = m_places.size();
            m_named[variable.name].append(number);
            m_ofTag.last()[{variable.station, variable.tag}].append(number);
            m_places.append({line, i});
            m_identities.append(identityOf(m_lines.line(line), variable));
        }
    }
}

const Variable& VariableIndex::variable(int number) const
{
    return line(number).project.variables.at(place(number).variable);
}

const GatewayValue& VariableIndex::latest(int number) const
{
    const VariablePlace& at = place(number);
    return m_lines.latest(at.line, at.variable);
}

int VariableIndex::lineNamed(const QString& name, const std::string& key) const
{
    if (name.isEmpty() && m_lines.size() == 1)
        return 0;
    std::vector<std::string> names;
    for (int line = 0; line < m_lines.size(); ++line) {
        if (m_lines.line(line).name == name)
            return line;
        names.push_back(m_lines.line(line).name.toStdString());
    }
    if (name.isEmpty())
        throw RequestError(errorcode::kBadRequest, "the key \"line\" is missing");
    throw RequestError(errorcode::kUnknownName,
                       key + ": no line is called " + inQuotes(name.toStdString()) +
                           didYouMean(name.left(100).toStdString(), names));
}

// Comparing with very many names would take long.
std::string VariableIndex::guess(const QString& name) const
{
    const int kMostCompared = 1000;
    const int kLongestCompared = 64;
    if (m_named.size() > kMostCompared || name.size() > kLongestCompared)
        return std::string();
    std::vector<std::string> names;
    for (auto named = m_named.constBegin(); named != m_named.constEnd(); ++named)
        names.push_back(named.key().toStdString());
    std::sort(names.begin(), names.end());
    return didYouMean(name.toStdString(), names);
}

int VariableIndex::variableNamed(const QString& line, const QString& name,
                                 const std::string& key) const
{
    const int only = line.isEmpty() ? -1 : lineNamed(line, "line");
    QVector<int> found;
    for (const int number : m_named.value(name)) {
        if (only < 0 || place(number).line == only)
            found.append(number);
    }
    const std::string quoted = inQuotes(name.toStdString());
    if (found.isEmpty())
        throw RequestError(errorcode::kUnknownName,
                           key + ": no variable is called " + quoted + guess(name));
    if (found.size() > 1)
        throw RequestError(errorcode::kBadRequest,
                           key + ": " + quoted + " is a variable of the lines " +
                               VariableIndex::line(found.at(0)).name.toStdString() + " and " +
                               VariableIndex::line(found.at(1)).name.toStdString() +
                               " (add the key \"line\")");
    return found.first();
}

QVector<int> VariableIndex::variablesAt(int line, const host::TagKey& tag, int element) const
{
    QVector<int> found;
    for (const int number : m_ofTag.at(line).value(tag)) {
        const Variable& shown = variable(number);
        if (element >= shown.element && element - shown.element < shown.length)
            found.append(number);
    }
    return found;
}

} // namespace micro850::gateway
