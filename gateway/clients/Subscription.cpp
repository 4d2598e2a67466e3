#include "Subscription.h"

#include "NamePattern.h"

#include <utility>

namespace micro850::gateway {

QVector<int> VariableFilter::numbers(const VariableIndex& index) const
{
    const QSet<QString> wanted(names.begin(), names.end());
    QVector<int> numbers;
    for (int number = 0; number < index.size(); ++number) {
        if (!line.isEmpty() && line != index.line(number).name)
            continue;
        const QString& name = index.variable(number).name;
        if (wanted.isEmpty() ? host::nameMatches(name, match) : wanted.contains(name))
            numbers.append(number);
    }
    return numbers;
}

Subscription::Subscription(int id, VariableFilter filter, bool ages, const VariableIndex& index)
    : m_id(id), m_filter(std::move(filter)), m_ages(ages)
{
    choose(index);
}

void Subscription::choose(const VariableIndex& index)
{
    QSet<quint64> told;
    for (int i = 0; i < m_members.size(); ++i) {
        if (m_states.at(m_members.at(i)) == State::Told)
            told.insert(m_identities.at(i));
    }
    m_members = m_filter.numbers(index);
    m_identities.clear();
    m_states.fill(State::NotWanted, index.size());
    m_waiting.clear();
    m_taken = 0;
    m_lines.clear();
    for (const int number : std::as_const(m_members)) {
        m_lines.insert(index.line(number).name);
        m_identities.append(index.identity(number));
        const bool wasTold = told.contains(index.identity(number));
        m_states[number] = wasTold ? State::Told : State::First;
        if (!wasTold)
            m_waiting.append(number);
    }
}

void Subscription::add(int number)
{
    State& state = m_states[number];
    if (state == State::NotWanted)
        return;
    if (state == State::Told)
        m_waiting.append(number);
    else if (state == State::Changed)
        ++m_leftOut;
    state = State::Changed;
}

QByteArray Subscription::take(ValueTexts& texts, int most)
{
    QByteArray line = R"({"event":"values","subscription":)" + QByteArray::number(m_id);
    if (m_leftOut > 0)
        line += ",\"leftOut\":" + QByteArray::number(m_leftOut);
    m_leftOut = 0;
    line += ",\"values\":[";
    bool first = true;
    while (m_taken < m_waiting.size() && (first || line.size() < most)) {
        const int number = m_waiting.at(m_taken++);
        m_states[number] = State::Told;
        if (!first)
            line += ',';
        line += texts.text(number);
        first = false;
    }
    if (m_taken >= m_waiting.size() / 2) {
        m_waiting.remove(0, m_taken);
        m_taken = 0;
    }
    return line += "]}\n";
}

} // namespace micro850::gateway
