#ifndef MICRO850_HOST_SESSION_H
#define MICRO850_HOST_SESSION_H

#include "PollLoop.h"
#include "TagAddress.h"
#include "UserError.h"

#include <functional>

namespace micro850::host {

/// The controller refused one tag; other tags may still be read.
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

/// Single reads and writes, one after the other: each call waits for its outcome. It throws
/// UserError with exit status 1 for what the controller or the line refuses, and with exit status 2
/// for what cannot be asked for.
class Session
{
public:
    Session(const DriverApi& api, Line& line, const Clock& clock, const Project& project);
    ~Session();

    /// The type of a tag in the controller.
    const CipType& typeOf(const TagKey& tag);
    /// Reads a run of elements, each in the controller's byte order. `progress` is called with the
    /// number of elements read so far.
    QVector<QByteArray> read(const TagKey& tag, int element, int elements,
                             const std::function<void(int)>& progress = nullptr);
    Exchange& exchange() { return m_loop.exchange(); }
    /// Writes one element. Throws when the type of the tag cannot be written.
    void write(const TagKey& tag, int element, const QByteArray& value);

private:
    Operation run(int id, const QString& what);

    const Project& m_project;
    PollLoop m_loop;
};

} // namespace micro850::host

#endif
