#include "ReplyCollector.h"

#include "Frame.h"

#include <algorithm>

namespace micro850::host {

namespace {

// Twice what a connection of 504 bytes can bring; a frame that never ends is noise.
const int kLongestData = 1024;
// On the line: every byte is doubled, and many responses are embedded.
const int kLongestFrame = 4 * kLongestData;

} // namespace

void ReplyCollector::reset()
{
    m_state = State::Outside;
    m_data.clear();
    m_raw.clear();
    m_illegal = false;
}

QByteArray ReplyCollector::abandon()
{
    QByteArray begun = m_raw;
    reset();
    return begun;
}

QList<ReplyCollector::Event> ReplyCollector::feed(const QByteArray& bytes)
{
    QList<Event> events;
    const char* at = bytes.begin();
    while (at != bytes.end()) {
        const int plain = plainBytes(at, bytes.end());
        m_raw.append(at, std::max(1, plain));
        if (plain > 0)
            m_data.append(at, plain);
        else
            parse(*at, events);
        at += std::max(1, plain);
        if (m_data.size() > kLongestData || m_raw.size() > kLongestFrame) {
            events.append({Kind::Corrupt, QByteArray(), m_raw});
            reset();
        }
    }
    return events;
}

// The number of bytes from here on that are data of a frame and need no parsing; at most one more
// than the longest data.
int ReplyCollector::plainBytes(const char* at, const char* end) const
{
    if (m_state != State::Data)
        return 0;
    const auto room = std::min<std::ptrdiff_t>(end - at, kLongestData + 1 - m_data.size());
    return static_cast<int>(std::find(at, at + room, kDle) - at);
}

void ReplyCollector::parse(char byte, QList<Event>& events)
{
    switch (m_state) {
    case State::Outside:
        if (byte == kDle) {
            m_state = State::Escape;
        } else {
            ++m_noise;
            m_raw.clear();
        }
        break;
    case State::Escape:
        parseOutsideEscape(byte, events);
        break;
    case State::Data:
        m_state = State::DataEscape; // any other byte is plain
        break;
    case State::DataEscape:
        parseDataEscape(byte, events);
        break;
    case State::CrcLow:
        m_crcLow = static_cast<quint8>(byte);
        m_state = State::CrcHigh;
        break;
    case State::CrcHigh:
        end(byte, events);
        break;
    }
}

void ReplyCollector::parseOutsideEscape(char byte, QList<Event>& events)
{
    m_state = State::Outside;
    switch (byte) {
    case kStx:
        begin();
        return;
    case kAck: // it may belong to a frame that follows
        reportControl(Kind::Ack, events);
        m_raw = m_raw.right(2);
        return;
    case kNak:
        reportControl(Kind::Nak, events);
        break;
    case kEnq:
        reportControl(Kind::Enq, events);
        break;
    case kDle: // the first was noise, this one may begin a frame
        ++m_noise;
        m_state = State::Escape;
        m_raw = m_raw.right(1);
        return;
    default:
        m_noise += 2;
    }
    m_raw.clear();
}

void ReplyCollector::parseDataEscape(char byte, QList<Event>& events)
{
    m_state = State::Data;
    switch (byte) {
    case kDle:
        m_data.append(byte);
        break;
    case kEtx:
        m_state = State::CrcLow;
        break;
    case kStx: // the peer starts the frame again
        m_raw = m_raw.right(2);
        begin();
        break;
    case kAck: // an embedded response is not data
        reportControl(Kind::Ack, events);
        break;
    case kNak:
        reportControl(Kind::Nak, events);
        break;
    case kEnq:
        reportControl(Kind::Enq, events);
        break;
    default:
        m_illegal = true;
    }
}

void ReplyCollector::begin()
{
    m_data.clear();
    m_illegal = false;
    m_state = State::Data;
}

// A control is the last two bytes, also within a frame.
void ReplyCollector::reportControl(Kind kind, QList<Event>& events) const
{
    events.append({kind, QByteArray(), m_raw.right(2)});
}

void ReplyCollector::end(char crcHigh, QList<Event>& events)
{
    const unsigned received = m_crcLow | static_cast<unsigned>(static_cast<quint8>(crcHigh)) << 8;
    const bool intact = !m_illegal && received == frameCrc(m_data);
    events.append({intact ? Kind::Frame : Kind::Corrupt, intact ? m_data : QByteArray(), m_raw});
    reset();
}

QByteArray replyForDriver(const QByteArray& data, bool searchedFor)
{
    QByteArray wire = wireFrame(data);
    if (searchedFor && wire.endsWith("\x10\x10"))
        wire.append('\0');
    return wire;
}

} // namespace micro850::host
