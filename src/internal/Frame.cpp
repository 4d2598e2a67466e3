#include "internal/Frame.h"

#include "internal/Crc16.h"
#include "internal/QtCompat.h"

#include <QtCore/QStringList>

#include <algorithm>
#include <cstring>

namespace {

// Room for a request with a name of usual length and a short value; a longer request grows.
const int kUsualSize = 96;

// The shortest reply that can hold a frame, and the first place where its ETX can be.
const int kShortestReply = 24;
const int kFirstEtx = 21;

const int kCrcSize = 2;

// Size of the header that has `second` as its second byte: DLE ACK DLE STX, DLE STX, or none.
int headerSize(quint8 second)
{
    return second == frame::kAck ? 4 : second == frame::kStx ? 2 : 0;
}

unsigned int extendedCrc(unsigned int crc, const char* begin, const char* end)
{
    for (; begin < end; ++begin)
        crc = crc16::extended(crc, static_cast<quint8>(*begin));
    return crc;
}

// The CRC of the data so far, closed with ETX.
unsigned int closedCrc(unsigned int crc)
{
    return crc16::extended(crc, frame::kEtx);
}

// CRC of a frame's data, which begins after the header and ends at index `end`.
unsigned int crcUpTo(const QByteArray& frame, int end)
{
    const char* begin = frame.constData();
    const int first = headerSize(frame::byteAt(frame, 1));
    return closedCrc(first < end ? extendedCrc(0, begin + first, begin + end) : 0);
}

bool isPair(const char* at)
{
    return at[0] == frame::kDle && at[1] == frame::kDle;
}

// The first pair of DLEs, null for none.
const char* firstPair(const char* begin, const char* end)
{
    while (begin < end) {
        const void* dle = std::memchr(begin, frame::kDle, static_cast<std::size_t>(end - begin));
        if (!dle)
            break;
        begin = static_cast<const char*>(dle);
        if (begin + 1 < end && isPair(begin))
            return begin;
        ++begin;
    }
    return nullptr;
}

// CRC of a reply as received, extended from one possible end to the next.
class ReplyCrc
{
public:
    // A reply that is long enough for a header.
    explicit ReplyCrc(const QByteArray& reply)
        : m_begin(reply.constData()), m_next(m_begin), m_crc(0)
    {
        // The header's size counts undoubled bytes.
        const int header = headerSize(static_cast<quint8>(m_begin[isPair(m_begin) ? 2 : 1]));
        for (int i = 0; i < header; ++i)
            m_next += isPair(m_next) ? 2 : 1;
    }

    // `etx` follows a DLE. The CRC of the undoubled data in front of that DLE, or of the pair that
    // it ends, closed with ETX.
    unsigned int closedBefore(const char* etx)
    {
        const char* run = etx;
        while (run > m_begin && run[-1] == frame::kDle)
            --run;
        const char* end = etx - ((etx - run) % 2 == 0 ? 2 : 1);
        while (const char* pair = firstPair(m_next, end)) {
            m_crc = extendedCrc(m_crc, m_next, pair + 1);
            m_next = pair + 2;
        }
        m_crc = extendedCrc(m_crc, m_next, end);
        m_next = end;
        return closedCrc(m_crc);
    }

private:
    const char* m_begin;
    const char* m_next;
    unsigned int m_crc;
};

} // namespace

namespace frame {

void growTo(QByteArray& bytes, int size)
{
    const int old = bytes.size();
    if (size <= old)
        return;
    bytes.resize(size);
    std::memset(bytes.data() + old, 0, static_cast<std::size_t>(size - old));
}

QByteArray fromHexText(const char* text)
{
    const QStringList parts = QString::fromLatin1(text).split(QLatin1Char(' '));
    QByteArray bytes;
    bytes.reserve(parts.size());
    for (int i = 0; i < parts.size(); ++i)
        bytes.append(static_cast<char>(parts.at(i).toInt(nullptr, 16)));
    return bytes;
}

unsigned int crcOf(const QByteArray& frame)
{
    return crcUpTo(frame, frame.size() - 2);
}

// From the back, so that nothing is moved twice.
void doubleDles(QByteArray& frame)
{
    const int size = frame.size();
    // A frame without either header is treated as if it began with DLE STX.
    const int first = qMax(2, headerSize(byteAt(frame, 1)));
    const int last = size - kTrailerSize;
    const char* plain = frame.constData();
    if (last <= first || !std::memchr(plain + first, kDle, static_cast<std::size_t>(last - first)))
        return;
    const int extra = static_cast<int>(std::count(plain + first, plain + last, kDle));
    frame.resize(size + extra);
    char* begin = frame.data();
    std::memmove(begin + last + extra, begin + last, kTrailerSize);
    char* to = begin + last + extra;
    for (const char* from = begin + last; from != to;) {
        *--to = *--from;
        if (*from == kDle)
            *--to = kDle;
    }
}

void undoubleDles(QByteArray& frame)
{
    const char* begin = frame.constData();
    const char* pair = firstPair(begin, begin + frame.size());
    if (!pair)
        return;
    const int before = static_cast<int>(pair - begin);
    char* to = frame.data() + before;
    const char* end = frame.constData() + frame.size();
    for (const char* from = to; from < end; from += from + 1 < end && isPair(from) ? 2 : 1)
        *to++ = *from;
    frame.truncate(static_cast<int>(to - frame.constData()));
}

void close(QByteArray& frame)
{
    const unsigned int crc = crcUpTo(frame, frame.size());
    const char trailer[kTrailerSize] = {kDle, kEtx, static_cast<char>(crc & 0xFF),
                                        static_cast<char>(crc >> 8)};
    frame.append(trailer, kTrailerSize);
    doubleDles(frame);
}

void patchTransaction(QByteArray& frame, unsigned short transaction)
{
    char* bytes = frame.data();
    bytes[kTransactionLow] = static_cast<char>(transaction & 0xFF);
    bytes[kTransactionHigh] = static_cast<char>(transaction >> 8);
}

bool endsAsFrame(const QByteArray& reply)
{
    const int trailer = reply.size() - kTrailerSize;
    return trailer >= 0 && reply.at(trailer) == kDle && reply.at(trailer + 1) == kEtx;
}

bool isIntact(const QByteArray& reply)
{
    if (reply.size() < kShortestReply)
        return false;
    const char* const last = reply.constData() + reply.size() - kCrcSize;
    ReplyCrc crc(reply);
    // Each pair of bytes 10 03 is the end or, after a doubled DLE, data. The CRC decides, and the
    // search goes on. The CRC is extended along with it, so many candidates cost no more than one.
    for (const char* etx = reply.constData() + kFirstEtx; etx < last; ++etx) {
        if (*etx != kEtx || etx[-1] != kDle)
            continue;
        const unsigned int received = static_cast<quint8>(etx[1]) |
                                      static_cast<unsigned int>(static_cast<quint8>(etx[2])) << 8;
        if (crc.closedBefore(etx) == received)
            return true;
    }
    return false;
}

Builder::Builder(const QByteArray& head, const QString& tagName, int element)
{
    m_bytes.reserve(kUsualSize);
    m_bytes.append(head);
    addTagName(tagName);
    addElement(element);
    m_bytes[kPathSize] = static_cast<char>((m_bytes.size() - kPath) / 2 & 0xFF);
}

void Builder::addNumber(quint64 value, int size)
{
    char bytes[8];
    for (int i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((value >> (8 * i)) & 0xFF);
    m_bytes.append(bytes, size);
}

void Builder::addTagName(const QString& name)
{
    const int length = name.size();
    const int at = m_bytes.size();
    growTo(m_bytes, at + 1 + length + length % 2); // a name of odd length ends with a pad
    char* segment = m_bytes.data() + at;
    segment[0] = static_cast<char>(length & 0xFF);
    for (int i = 0; i < length; ++i)
        segment[1 + i] = qtcompat::latin1(name.at(i));
}

void Builder::addElement(int element)
{
    // As an unsigned number: a negative index then makes a segment that no controller accepts,
    // instead of the element that its low byte names.
    const unsigned int index = static_cast<unsigned int>(element);
    if (index == 0)
        return;
    if (index < 0x100) {
        addNumber(0x28, 1);
        addNumber(index, 1);
    } else if (index < 0x10000) {
        addNumber(0x0029, 2);
        addNumber(index, 2);
    } else {
        addNumber(0x0030, 2);
        addNumber(index, 4);
    }
}

void Builder::addType(quint8 low, quint8 high)
{
    addNumber(low, 1);
    addNumber(high, 1);
}

void Builder::addCount(int count)
{
    addNumber(static_cast<unsigned int>(count), 6);
}

void Builder::addBytes(const QByteArray& bytes)
{
    m_bytes.append(bytes);
}

QByteArray& Builder::finish(const Header& header)
{
    patchTransaction(m_bytes, header.transaction);
    char* bytes = m_bytes.data();
    bytes[kConnectionLow] = static_cast<char>(header.connectionLow);
    bytes[kConnectionHigh] = static_cast<char>(header.connectionHigh);
    bytes[kSequence] = static_cast<char>((header.transaction + 7) & 0xFF);
    close(m_bytes);
    return m_bytes;
}

} // namespace frame
