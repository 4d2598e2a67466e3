#include "ReplyCollector.h"

#include "Frame.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace micro850::host {

namespace {

// Twice what a connection of 504 bytes can bring; a frame that never ends is noise.
const int kLongestData = 1024;
// On the line: every byte is doubled, and many responses are embedded.
const int kLongestFrame = 4 * kLongestData;

const int kControlBytes = 2;

} // namespace

QByteArray ReplyCollector::Event::frame() const
{
    return regular ? raw : wireFrame(data);
}

void ReplyCollector::reset()
{
    leaveFrame();
    dropParsed();
}

QByteArray ReplyCollector::abandon()
{
    QByteArray begun = raw();
    reset();
    return begun;
}

// Mostly nothing has come before these bytes, which are then shared and not copied.
ReplyCollector::Events ReplyCollector::feed(QByteArray bytes)
{
    Events events;
    if (m_bytes.isEmpty())
        m_bytes = std::move(bytes);
    else
        m_bytes += bytes;
    while (m_at < m_bytes.size()) {
        if (m_state == State::Data)
            skipPlain();
        else
            parse(m_bytes.at(m_at++), events);
        if (m_dataSize > kLongestData || m_at - m_begin > kLongestFrame) {
            events.append({Kind::Corrupt, ByteSlice(), raw(), false});
            leaveFrame();
        }
    }
    dropParsed();
    return events;
}

// Forgets the bytes that no event can need any more.
void ReplyCollector::dropParsed()
{
    if (m_begin == m_bytes.size())
        m_bytes.clear();
    else
        m_bytes.remove(0, m_begin);
    m_at -= m_begin;
    m_run -= m_begin;
    m_begin = 0;
}

// Goes on behind the next DLE, or behind the bytes that came; at most one byte further than the
// longest data.
void ReplyCollector::skipPlain()
{
    const char* const at = m_bytes.constData() + m_at;
    const int room = std::min(m_bytes.size() - m_at, kLongestData + 1 - m_dataSize);
    const void* const dle = std::memchr(at, kDle, static_cast<std::size_t>(room));
    const int plain = dle ? static_cast<int>(static_cast<const char*>(dle) - at) : room;
    m_dataSize += plain;
    m_at += plain;
    if (!dle)
        return;
    ++m_at;
    m_state = State::DataEscape;
}

void ReplyCollector::parse(char byte, Events& events)
{
    switch (m_state) {
    case State::Outside:
        if (byte == kDle) {
            m_state = State::Escape;
        } else {
            ++m_noise;
            m_begin = m_at;
        }
        break;
    case State::Escape:
        parseOutsideEscape(byte, events);
        break;
    case State::Data: // skipPlain() does that
        break;
    case State::DataEscape:
        parseDataEscape(byte, events);
        break;
    case State::CrcLow:
        m_state = State::CrcHigh;
        break;
    case State::CrcHigh:
        end(events);
        break;
    }
}

void ReplyCollector::parseOutsideEscape(char byte, Events& events)
{
    m_state = State::Outside;
    switch (byte) {
    case kStx:
        begin();
        return;
    case kAck: // it may belong to a frame that follows
        m_begin = m_at - kControlBytes;
        return;
    case kNak:
        reportControl(Kind::Nak, kNak, events);
        break;
    case kEnq:
        reportControl(Kind::Enq, kEnq, events);
        break;
    case kDle: // the first was noise, this one may begin a frame
        ++m_noise;
        m_state = State::Escape;
        m_begin = m_at - 1;
        return;
    default:
        m_noise += 2;
    }
    m_begin = m_at;
}

void ReplyCollector::parseDataEscape(char byte, Events& events)
{
    m_state = State::Data;
    switch (byte) {
    case kDle: // the first of the two is data
        breakRun(m_at - 1);
        ++m_dataSize;
        break;
    case kEtx:
        m_state = State::CrcLow;
        break;
    case kStx: // the peer starts the frame again
        m_begin = m_at - 2;
        begin();
        break;
    case kAck: // an embedded response is not data
        leaveControlOut();
        break;
    case kNak:
        reportControl(Kind::Nak, kNak, events);
        break;
    case kEnq:
        reportControl(Kind::Enq, kEnq, events);
        break;
    default:
        m_illegal = true;
    }
}

void ReplyCollector::begin()
{
    m_state = State::Data;
    m_run = m_at;
    m_dataSize = 0;
    m_oneRun = true;
    m_regular = m_at - m_begin == kHeadBytes;
    m_illegal = false;
}

// The data end here and go on with the next byte.
void ReplyCollector::breakRun(int end)
{
    if (m_oneRun)
        m_undoubled.clear();
    m_oneRun = false;
    m_undoubled.append(m_bytes.constData() + m_run, end - m_run);
    m_run = m_at;
}

// The control can be outside a frame or within one.
void ReplyCollector::reportControl(Kind kind, char control, Events& events)
{
    events.append({kind, ByteSlice(), linkControl(control), false});
    if (m_state == State::Data)
        leaveControlOut();
}

// The last two bytes are a control within a frame.
void ReplyCollector::leaveControlOut()
{
    breakRun(m_at - kControlBytes);
    m_regular = false;
}

// The data of this complete frame, undoubled.
ByteSlice ReplyCollector::popData(const QByteArray& frame)
{
    const int dataEnd = m_at - kTrailerBytes;
    if (m_oneRun)
        return ByteSlice(frame, m_run - m_begin, dataEnd - m_run);
    breakRun(dataEnd);
    return std::exchange(m_undoubled, QByteArray());
}

void ReplyCollector::end(Events& events)
{
    QByteArray frame = raw();
    ByteSlice data = popData(frame);
    const auto byteAt = [this](int at) { return static_cast<quint8>(m_bytes.at(at)); };
    const int received = byteAt(m_at - 2) | byteAt(m_at - 1) << 8;
    if (m_illegal || received != frameCrc(data))
        events.append({Kind::Corrupt, ByteSlice(), std::move(frame), false});
    else
        events.append({Kind::Frame, std::move(data), std::move(frame), m_regular});
    leaveFrame();
}

// What is parsed belongs to no frame any more.
void ReplyCollector::leaveFrame()
{
    m_state = State::Outside;
    m_begin = m_at;
    m_dataSize = 0;
}

QByteArray replyForDriver(const QByteArray& frame, bool searchedFor)
{
    const char twoDles[] = {kDle, kDle, '\0'};
    if (!searchedFor || !frame.endsWith(twoDles))
        return frame;
    return frame + '\0';
}

} // namespace micro850::host
