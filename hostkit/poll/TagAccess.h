#ifndef MICRO850_HOST_TAGACCESS_H
#define MICRO850_HOST_TAGACCESS_H

#include "CipType.h"
#include "TagKey.h"
#include "UserError.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QVector>

#include <functional>

namespace micro850::host {

/// The controller refused one tag, or one of its elements; other tags may still be read.
class TagRefused : public UserError
{
public:
    /// `element` is below 0 when the tag itself is refused.
    TagRefused(const std::string& what, const std::string& why, int element = -1)
        : UserError(what + ": " + why, kExitRefused), m_why(why), m_element(element)
    {
    }
    /// The reason without the tag.
    const std::string& why() const { return m_why; }
    /// The first element that is refused, or below 0.
    int element() const { return m_element; }

private:
    std::string m_why;
    int m_element;
};

/// A write failed, and was surely not carried out. Any other failure of a write that is not
/// TagRefused leaves open whether it was.
class NotWritten : public UserError
{
public:
    explicit NotWritten(const std::string& why, ExitStatus status = kExitRefused)
        : UserError(why, status)
    {
    }
};

/// Throws UserError when the driver can reach none but element 0 of a tag of this type, and others
/// are asked for. `name` is what the message calls the tag.
void requireReachable(const CipType& type, int element, int elements, const QString& name);

/// Single reads and writes, one after the other: each call waits for its outcome. It throws
/// TagRefused for what the controller refuses, UserError with exit status 1 when line or station
/// fail, and UserError with exit status 2 for what cannot be asked for. With a line of its own
/// (Session), or through a gateway.
class TagAccess
{
public:
    virtual ~TagAccess() = default;

    /// Sets a function that is asked while an outcome is waited for. When it returns true, typeOf()
    /// throws UserError at once, and every function does so when no answer comes a moment later.
    virtual void setInterrupt(const std::function<bool()>& interrupt) = 0;

    /// The type of a tag in the controller.
    virtual const CipType& typeOf(const TagKey& tag) = 0;
    /// Reads a run of elements, each in the controller's byte order. `progress` is called with the
    /// number of elements read so far. When the run reaches beyond the tag, the exception names the
    /// first element that is not there.
    virtual QVector<QByteArray> read(const TagKey& tag, int element, int elements,
                                     const std::function<void(int)>& progress = nullptr) = 0;
    /// Throws, as read() does, unless all of these elements exist. Reads only the last one.
    virtual void requireElements(const TagKey& tag, int element, int elements) = 0;
    /// Throws, as write() does, when it is known before that this write is not allowed. Sends
    /// nothing to the controller that write() sends.
    virtual void requireAllowed(const TagKey& tag, int element, const QByteArray& value) = 0;
    /// Writes one element. Throws when the type of the tag cannot be written, and for an element
    /// that the driver cannot reach; NotWritten when it failed before it was sent.
    virtual void write(const TagKey& tag, int element, const QByteArray& value) = 0;
    /// Nothing is asked for a while: ends what a controller would wait for.
    virtual void rest() {}
    /// Ends in order. Call it when all is read and written.
    virtual void finish() = 0;
};

} // namespace micro850::host

#endif
