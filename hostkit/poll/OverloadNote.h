#ifndef MICRO850_HOST_OVERLOADNOTE_H
#define MICRO850_HOST_OVERLOADNOTE_H

#include "Project.h"
#include "ReadSchedule.h"

namespace micro850::host {

/// What people are told of a line that is asked for more than it can do. It stays the same until
/// the overload changes much.
class OverloadNote
{
public:
    /// `project` has the variables that the load names.
    void note(const LineLoad& load, const Project& project);
    /// Empty without an overload.
    const QString& text() const { return m_text; }

private:
    QString m_text;
    double m_share = 0; ///< the one in m_text
};

} // namespace micro850::host

#endif
