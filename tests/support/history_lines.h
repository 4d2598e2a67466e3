#ifndef MICRO850_TESTS_HISTORY_LINES_H
#define MICRO850_TESTS_HISTORY_LINES_H

#include "LineService.h"

#include <algorithm>
#include <vector>

/// Lines without workers: a test sets the values and tells the listeners.
class HistoryLines : public micro850::gateway::LineService
{
public:
    /// A line with variables of these names.
    void addLine(const QString& name, const QStringList& variables)
    {
        micro850::gateway::LineSettings line;
        line.name = name;
        std::vector<micro850::gateway::GatewayValue> values;
        for (const QString& variable : variables) {
            micro850::host::Variable made;
            made.name = made.tag = variable;
            line.project.variables.append(made);
            micro850::gateway::GatewayValue value;
            value.line = name;
            value.name = value.tag = variable;
            values.push_back(value);
        }
        m_lines.push_back(line);
        m_values.push_back(values);
    }
    micro850::gateway::GatewayValue& value(int line, int variable)
    {
        return m_values.at(line).at(variable);
    }
    micro850::host::Variable& variable(int line, int variable)
    {
        return m_lines.at(line).project.variables[variable];
    }
    template<typename Tell> void tell(Tell call)
    {
        for (micro850::gateway::LineListener* listener : m_listeners)
            call(*listener);
    }
    std::size_t listeners() const { return m_listeners.size(); }

    int size() const override { return static_cast<int>(m_lines.size()); }
    const micro850::gateway::LineSettings& line(int index) const override
    {
        return m_lines.at(index);
    }
    const micro850::gateway::GatewayValue& latest(int line, int variable) const override
    {
        return m_values.at(line).at(variable);
    }
    qint64 ageMs(int, int) const override { return 0; }
    micro850::gateway::Json status(int) const override { return micro850::gateway::Json::object(); }
    qint64 ask(int, micro850::gateway::Json, const Answer&) override { return 0; }
    void cancel(qint64) override {}
    void addListener(micro850::gateway::LineListener& listener) override
    {
        m_listeners.push_back(&listener);
    }
    void removeListener(micro850::gateway::LineListener& listener) override
    {
        m_listeners.erase(std::remove(m_listeners.begin(), m_listeners.end(), &listener),
                          m_listeners.end());
    }
    void reportWrite(const micro850::gateway::JournalEntry& entry) override
    {
        tell([&entry](auto& listener) { listener.handleWrite(entry); });
    }

private:
    std::vector<micro850::gateway::LineSettings> m_lines;
    std::vector<std::vector<micro850::gateway::GatewayValue>> m_values;
    std::vector<micro850::gateway::LineListener*> m_listeners;
};

#endif
