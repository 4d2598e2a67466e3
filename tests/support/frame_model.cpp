#include "frame_model.h"

#include "wire.h"

namespace frame_model {

QByteArray doubled(const QByteArray& plain)
{
    const int from = plain.mid(1, 1) == "\x06" ? 4 : 2;
    if (plain.size() < from + 4)
        return plain;
    return plain.left(from) + wire::withDoubledDle(plain.mid(from, plain.size() - from - 4)) +
           plain.right(4);
}

QByteArray undoubled(const QByteArray& bytes)
{
    return QByteArray(bytes).replace("\x10\x10", "\x10");
}

unsigned int crcOf(const QByteArray& closed)
{
    const QByteArray mark = closed.mid(1, 1);
    const QByteArray data = closed.mid(mark == "\x06" ? 4 : mark == "\x02" ? 2 : 0);
    return wire::crc16Arc(data.left(qMax(0, data.size() - 2)) + '\x03');
}

int verdict(const QByteArray& reply)
{
    if (reply.size() < 24)
        return 0;
    for (int etx = 21; etx <= reply.size() - 3; ++etx) {
        if (reply.at(etx) != '\x03' || reply.at(etx - 1) != '\x10')
            continue;
        const unsigned int crc = crcOf(undoubled(reply.left(etx + 1)));
        if (wire::little(crc, 2) == reply.mid(etx + 1, 2))
            return 1;
    }
    return 0;
}

} // namespace frame_model
