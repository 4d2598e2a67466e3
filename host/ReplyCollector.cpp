#include "ReplyCollector.h"

#include "Frame.h"

#include <algorithm>

namespace host {

namespace {

// Twice what a connection of 504 bytes can bring; a frame that never ends is noise.
const int kLongestData = 1024;

} // namespace

void ReplyCollector::reset()
{
    m_state = State::Outside;
    m_data.clear();
    m_illegal = false;
}

QList<ReplyCollector::Event> ReplyCollector::feed(const QByteArray& bytes)
{
    QList<Event> events;
    const char* at = bytes.begin();
    while (at != bytes.end()) {
        const int plain = plainBytes(at, bytes.end());
        if (plain > 0)
            takeData(at, plain, events);
        else
            take(*at, events);
        at += std::max(1, plain);
    }
    return events;
}

// How many bytes from here on are a frame's data as they stand; at most one beyond the longest.
int ReplyCollector::plainBytes(const char* at, const char* end) const
{
    if (m_state != State::Data)
        return 0;
    const auto room = std::min<std::ptrdiff_t>(end - at, kLongestData + 1 - m_data.size());
    return static_cast<int>(std::find(at, at + room, kDle) - at);
}

void ReplyCollector::take(char byte, QList<Event>& events)
{
    switch (m_state) {
    case State::Outside:
        if (byte == kDle)
            m_state = State::Escape;
        else
            ++m_noise;
        break;
    case State::Escape:
        takeOutsideEscape(byte, events);
        break;
    case State::Data:
        m_state = State::DataEscape; // any other byte is plain
        break;
    case State::DataEscape:
        takeDataEscape(byte, events);
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

void ReplyCollector::takeOutsideEscape(char byte, QList<Event>& events)
{
    m_state = State::Outside;
    switch (byte) {
    case kStx:
        begin();
        break;
    case kAck:
        events.append({Kind::Ack, QByteArray()});
        break;
    case kNak:
        events.append({Kind::Nak, QByteArray()});
        break;
    case kEnq:
        events.append({Kind::Enq, QByteArray()});
        break;
    case kDle: // the first was noise, this one may begin a frame
        ++m_noise;
        m_state = State::Escape;
        break;
    default:
        m_noise += 2;
    }
}

void ReplyCollector::takeDataEscape(char byte, QList<Event>& events)
{
    m_state = State::Data;
    switch (byte) {
    case kDle:
        takeData(&byte, 1, events);
        break;
    case kEtx:
        m_state = State::CrcLow;
        break;
    case kStx: // the peer began again
        begin();
        break;
    case kAck: // a response embedded in the peer's own message is no data
        events.append({Kind::Ack, QByteArray()});
        break;
    case kNak:
        events.append({Kind::Nak, QByteArray()});
        break;
    case kEnq:
        events.append({Kind::Enq, QByteArray()});
        break;
    default:
        m_illegal = true;
    }
}

void ReplyCollector::takeData(const char* bytes, int count, QList<Event>& events)
{
    m_data.append(bytes, count);
    if (m_data.size() > kLongestData) {
        events.append({Kind::Corrupt, QByteArray()});
        reset();
    }
}

void ReplyCollector::begin()
{
    reset();
    m_state = State::Data;
}

void ReplyCollector::end(char crcHigh, QList<Event>& events)
{
    const unsigned received = m_crcLow | static_cast<unsigned>(static_cast<quint8>(crcHigh)) << 8;
    const bool intact = !m_illegal && received == frameCrc(m_data);
    events.append({intact ? Kind::Frame : Kind::Corrupt, intact ? m_data : QByteArray()});
    reset();
}

QByteArray replyForDriver(const QByteArray& data, bool searchedFor)
{
    QByteArray wire = wireFrame(data);
    if (searchedFor && wire.endsWith("\x10\x10"))
        wire.append('\0');
    return wire;
}

} // namespace host
