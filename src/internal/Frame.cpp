#include "internal/Frame.h"

#include "internal/FrameBytes.h"

#include <QtCore/QStringList>

#include <cstring>

namespace {

// Room for a request with a name of usual length and a short value; a longer request grows.
const int kUsualSize = 96;

const unsigned char* bytesOf(const QByteArray& bytes)
{
    return reinterpret_cast<const unsigned char*>(bytes.constData());
}

// The same for writing: detaches `bytes`.
unsigned char* dataOf(QByteArray& bytes)
{
    return reinterpret_cast<unsigned char*>(bytes.data());
}

std::size_t sizeOf(const QByteArray& bytes)
{
    return static_cast<std::size_t>(bytes.size());
}

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
    const std::size_t size = sizeOf(frame);
    return framebytes::frameCrc(bytesOf(frame), size, size < 2 ? 0 : size - 2);
}

void doubleDles(QByteArray& frame)
{
    // A frame without either header is treated as if it began with DLE STX.
    const std::size_t first = qMax<std::size_t>(2, framebytes::headerSize(byteAt(frame, 1)));
    if (sizeOf(frame) <= first + kTrailerSize)
        return;
    const std::size_t last = sizeOf(frame) - kTrailerSize;
    if (framebytes::nextDle(bytesOf(frame), first, last) == last)
        return;
    const std::size_t dles = framebytes::countDles(bytesOf(frame), first, last);
    frame.resize(frame.size() + static_cast<int>(dles));
    framebytes::doubleInPlace(dataOf(frame), first, last, dles);
}

void undoubleDles(QByteArray& frame)
{
    const std::size_t size = sizeOf(frame);
    const std::size_t pair = framebytes::firstPair(bytesOf(frame), 0, size);
    if (pair != size)
        frame.truncate(static_cast<int>(framebytes::undoubleInPlace(dataOf(frame), pair, size)));
}

void close(QByteArray& frame)
{
    unsigned char trailer[kTrailerSize];
    framebytes::putTrailer(trailer,
                           framebytes::frameCrc(bytesOf(frame), sizeOf(frame), sizeOf(frame)));
    frame.append(reinterpret_cast<const char*>(trailer), kTrailerSize);
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
    return framebytes::holdsFrame(bytesOf(reply), sizeOf(reply)) != 0;
}

Builder::Builder(const QByteArray& head, const QString& tagName, int element)
{
    m_bytes.reserve(kUsualSize);
    m_bytes.append(head);
    addTagName(tagName);
    addElement(element);
    m_bytes[kPathSize] = static_cast<char>((m_bytes.size() - kPath) / 2 & 0xFF);
}

void Builder::addTagName(const QString& name)
{
    const int length = name.size();
    const int at = m_bytes.size();
    m_bytes.resize(at + 1 + length + length % 2);
    // Not utf16(), which may copy the host's text to end it with a 0.
    framebytes::putTagName(dataOf(m_bytes) + at,
                           reinterpret_cast<const unsigned short*>(name.constData()),
                           static_cast<std::size_t>(length));
}

void Builder::addElement(int element)
{
    // As an unsigned number: a negative index then makes a segment that no controller accepts,
    // instead of the element that its low byte names.
    unsigned char segment[framebytes::kElementSegment];
    const std::size_t size = framebytes::putElement(segment, static_cast<unsigned int>(element));
    if (size > 0)
        m_bytes.append(reinterpret_cast<const char*>(segment), static_cast<int>(size));
}

void Builder::addType(quint8 low, quint8 high)
{
    const char type[] = {static_cast<char>(low), static_cast<char>(high)};
    m_bytes.append(type, 2);
}

void Builder::addCount(int count)
{
    unsigned char countAndOffset[6];
    framebytes::putNumber(countAndOffset, static_cast<unsigned int>(count), 6);
    m_bytes.append(reinterpret_cast<const char*>(countAndOffset), 6);
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
