#include "NamePattern.h"

namespace micro850::host {

namespace {

// After a mismatch only the last * takes one more character, so that the time grows with the
// product of both lengths. A regular expression would try all stars together.
class WholeMatch
{
public:
    WholeMatch(const QString& name, const QString& pattern) : m_name(name), m_pattern(pattern) {}

    bool matches()
    {
        while (m_at < m_name.size()) {
            if (!step() && !takeOneMore())
                return false;
        }
        while (wants('*'))
            ++m_in;
        return m_in == m_pattern.size();
    }

private:
    bool wants(QChar c) const { return m_in < m_pattern.size() && m_pattern.at(m_in) == c; }

    bool step()
    {
        if (wants('*')) {
            m_star = ++m_in;
            m_taken = m_at;
        } else if (wants('?')) {
            m_at += sizeAt(m_at);
            ++m_in;
        } else if (wants(m_name.at(m_at))) {
            ++m_at;
            ++m_in;
        } else {
            return false;
        }
        return true;
    }
    bool takeOneMore()
    {
        m_taken += m_star < 0 ? 0 : sizeAt(m_taken);
        m_at = m_taken;
        m_in = m_star;
        return m_star >= 0;
    }
    // A character beyond the basic plane has two parts.
    int sizeAt(int at) const
    {
        const bool pair = m_name.at(at).isHighSurrogate() && at + 1 < m_name.size() &&
                          m_name.at(at + 1).isLowSurrogate();
        return pair ? 2 : 1;
    }

    const QString& m_name;
    const QString& m_pattern;
    int m_at = 0;    ///< in the name
    int m_in = 0;    ///< in the pattern
    int m_star = -1; ///< behind the last * in the pattern
    int m_taken = 0; ///< the end of what that * took of the name
};

} // namespace

bool nameMatches(const QString& name, const QString& pattern)
{
    if (!pattern.contains('*') && !pattern.contains('?'))
        return name.contains(pattern, Qt::CaseInsensitive);
    // Brackets have no special meaning: they are part of many names.
    return WholeMatch(name.toCaseFolded(), pattern.toCaseFolded()).matches();
}

} // namespace micro850::host
