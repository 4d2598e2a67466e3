#include "model.h"

#include "frame_model.h"

namespace model {

namespace {

quint8 byteAt(const QByteArray& bytes, int at)
{
    return at >= 0 && at < bytes.size() ? static_cast<quint8>(bytes.at(at)) : quint8(0);
}

QByteArray byte(quint8 value)
{
    return QByteArray(1, static_cast<char>(value));
}

bool isConfirmed(const QByteArray& type)
{
    return type.size() > 3 && byteAt(type, 3) == 0xFF;
}

int elementSize(int typeClass)
{
    return typeClass == 3 ? 2 : typeClass == 4 ? 4 : typeClass == 5 ? 8 : 1;
}

// Pads with 00 or cuts.
QByteArray fitted(const QByteArray& bytes, int size)
{
    return bytes.leftJustified(size, '\0', true);
}

} // namespace

int classOf(quint8 first, quint8 second)
{
    switch (first == 0xA3 ? second : first) {
    case 0xC1:
        return 0;
    case 0xDA:
        return 1;
    case 0xC3:
    case 0xC7:
        return 3;
    case 0xC4:
    case 0xC8:
    case 0xCA:
        return 4;
    case 0xC5:
    case 0xC9:
    case 0xCB:
        return 5;
    default:
        return 2;
    }
}

void keepValue(Station& station, const Request& request, int valueAt, const QByteArray& reply)
{
    const QByteArray plain = frame_model::undoubled(reply);
    const quint8 low = byteAt(plain, 20);
    const quint8 high = byteAt(plain, 21);
    const int typeClass = classOf(low, high);
    QByteArray& type = station.types[request.tag];
    if (!isConfirmed(type))
        type = byte(static_cast<quint8>(typeClass)) + byte(low) + byte(high) + byte(0xFF);
    QByteArray value = plain.mid(valueAt, qMax(0, plain.size() - 4 - valueAt));
    if (typeClass == 1)
        value.remove(0, 1); // the string's length
    if (value.isEmpty())
        return;
    const int from = request.indexed ? request.start * elementSize(typeClass) : 0;
    QByteArray& image = station.values[request.tag];
    if (image.size() < from + value.size())
        image = fitted(image, from + value.size());
    image.replace(from, value.size(), value);
}

} // namespace model
