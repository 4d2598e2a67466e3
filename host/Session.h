#ifndef MICRO850_HOST_SESSION_H
#define MICRO850_HOST_SESSION_H

#include "PollLoop.h"
#include "TagAddress.h"

namespace host {

/// Single reads and writes, one after the other: each waits for its outcome. What the controller or
/// the line refuses is thrown as UserError with exit status 1, what cannot be asked for with
/// status 2.
class Session
{
public:
    Session(const DriverApi& api, Line& line, const Clock& clock, const Project& project);
    ~Session();

    /// The type of a tag, from the controller.
    const micro850::CipType& typeOf(const TagKey& tag);
    /// The elements of a run, in the controller's order of bytes.
    QVector<QByteArray> read(const TagKey& tag, int element, int elements);
    Exchange& exchange() { return m_loop.exchange(); }
    /// One element. Throws when the tag's type cannot be written.
    void write(const TagKey& tag, int element, const QByteArray& value);

private:
    Operation run(int id, const QString& what);

    const Project& m_project;
    PollLoop m_loop;
};

/// Throws unless the driver can write the type.
void requireWritable(const micro850::CipType& type, const QString& name);

} // namespace host

#endif
