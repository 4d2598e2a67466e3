#include "Identity.h"

#include <QtCore/QtEndian>

namespace micro850::host {

namespace {

// Offsets of the identity object's attributes in their common reply.
enum Offset {
    kVendor = 0,
    kDeviceType = 2,
    kProductCode = 4,
    kMajor = 6,
    kMinor = 7,
    kStatus = 8,
    kSerial = 10,
    kNameLength = 14,
    kName = 15
};

template<typename Word> Word wordAt(const QByteArray& bytes, int offset)
{
    return qFromLittleEndian<Word>(bytes.constData() + offset);
}

} // namespace

Identity decodeIdentity(const QByteArray& body)
{
    Identity identity;
    if (body.size() < kName)
        return identity;
    identity.valid = true;
    identity.vendor = wordAt<quint16>(body, kVendor);
    identity.deviceType = wordAt<quint16>(body, kDeviceType);
    identity.productCode = wordAt<quint16>(body, kProductCode);
    identity.major = static_cast<quint8>(body.at(kMajor));
    identity.minor = static_cast<quint8>(body.at(kMinor));
    identity.status = wordAt<quint16>(body, kStatus);
    identity.serial = wordAt<quint32>(body, kSerial);
    const QByteArray name = body.mid(kName, static_cast<quint8>(body.at(kNameLength)));
    identity.name = QString::fromLatin1(name.constData(), name.size()); // also behind a 00
    return identity;
}

} // namespace micro850::host
