#ifndef MICRO850_HOST_IDENTITY_H
#define MICRO850_HOST_IDENTITY_H

#include <QtCore/QByteArray>
#include <QtCore/QString>

namespace micro850::host {

/// How a controller identifies itself.
struct Identity
{
    bool valid = false; ///< false: the reply is too short for its fields
    quint16 vendor = 0;
    quint16 deviceType = 0;
    quint16 productCode = 0;
    int major = 0;
    int minor = 0;
    quint16 status = 0;
    quint32 serial = 0;
    QString name;
};

/// Decodes the bytes after the status of the reply to an identity request. Of a name that is cut
/// off the part that is there is used.
Identity decodeIdentity(const QByteArray& body);

} // namespace micro850::host

#endif
