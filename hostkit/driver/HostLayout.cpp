#include "HostLayout.h"

#include <algorithm>

namespace micro850::host {

TypeClass typeClassOf(quint16 typeCode)
{
    switch (typeCode) {
    case 0xC1:
        return TypeClass::Boolean;
    case 0xC3:
    case 0xC7:
        return TypeClass::Word;
    case 0xC4:
    case 0xC8:
    case 0xCA:
        return TypeClass::DoubleWord;
    case 0xC5:
    case 0xC9:
    case 0xCB:
        return TypeClass::QuadWord;
    case 0xDA:
        return TypeClass::ShortString;
    default:
        return TypeClass::Byte;
    }
}

int cyclicCount(TypeClass typeClass, int elements)
{
    switch (typeClass) {
    case TypeClass::DoubleWord:
        return elements + 1;
    case TypeClass::QuadWord:
        return elements + 3;
    default:
        return elements;
    }
}

int oneShotCount(TypeClass typeClass, int elements)
{
    switch (typeClass) {
    case TypeClass::DoubleWord:
        return 2 * elements;
    case TypeClass::QuadWord:
        return 4 * elements;
    default:
        return elements;
    }
}

int fetchCount(TypeClass typeClass, int valueBytes)
{
    switch (typeClass) {
    case TypeClass::Boolean:
    case TypeClass::Byte:
        return valueBytes;
    default:
        return (valueBytes + 1) / 2;
    }
}

QByteArray fromHostLayout(TypeClass typeClass, const QByteArray& bytes, const ByteSlice& reply)
{
    QByteArray value;
    switch (typeClass) {
    case TypeClass::Byte:
        for (int i = 0; i < bytes.size(); i += 2)
            value.append(bytes.at(i));
        return value;
    case TypeClass::ShortString:
        // The store never shrinks: after the length of the string comes the tail of an older
        // one.
        return reply.mid(0, 1).bytes() + bytes.left(std::max(0, reply.size() - 1));
    default:
        return bytes.left(reply.size());
    }
}

HostValue toHostLayout(const CipType& type, const QByteArray& element)
{
    switch (typeClassOf(type.code)) {
    case TypeClass::Boolean:
        return {element, 1};
    case TypeClass::Byte:
        return {element + QByteArray(1, '\0'), 1};
    case TypeClass::ShortString:
        // The driver adds the length itself.
        return {element.mid(1), std::max(1, element.size() / 2)};
    default:
        return {element, element.size() / 2};
    }
}

} // namespace micro850::host
