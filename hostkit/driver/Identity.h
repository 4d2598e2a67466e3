#ifndef MICRO850_HOST_IDENTITY_H
#define MICRO850_HOST_IDENTITY_H

#include <QtCore/QByteArray>
#include <QtCore/QString>

namespace micro850::host {

/// Who a controller says that it is.
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

/// Decodes what follows the status of the reply to an identity request. A name that is cut short is
/// taken as far as it goes.
Identity decodeIdentity(const QByteArray& body);

} // namespace micro850::host

#endif
