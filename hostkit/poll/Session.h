#ifndef MICRO850_HOST_SESSION_H
#define MICRO850_HOST_SESSION_H

#include "PollLoop.h"
#include "TagAddress.h"
#include "UserError.h"

#include <functional>

namespace micro850::host {

/// What the controller refuses of one tag: others may do.
class TagRefused : public UserError
{
public:
    TagRefused(const std::string& what, const std::string& why)
        : UserError(what + ": " + why, kExitRefused), m_why(why)
    {
    }
    /// The reason without the tag.
    const std::string& why() const { return m_why; }

private:
    std::string m_why;
};

/// Single reads and writes, one after the other: each waits for its outcome. What the controller or
/// the line refuses is thrown as UserError with exit status 1, what cannot be asked for with
/// status 2.
class Session
{
public:
    Session(const DriverApi& api, Line& line, const Clock& clock, const Project& project);
    ~Session();

    /// The type of a tag, from the controller.
    const CipType& typeOf(const TagKey& tag);
    /// The elements of a run, in the controller's order of bytes. `progress` is told how many are
    /// read.
    QVector<QByteArray> read(const TagKey& tag, int element, int elements,
                             const std::function<void(int)>& progress = nullptr);
    Exchange& exchange() { return m_loop.exchange(); }
    /// One element. Throws when the tag's type cannot be written.
    void write(const TagKey& tag, int element, const QByteArray& value);

private:
    Operation run(int id, const QString& what);

    const Project& m_project;
    PollLoop m_loop;
};

/// Throws unless the driver can write the type.
void requireWritable(const CipType& type, const QString& name);

} // namespace micro850::host

#endif
