#include "ReplyCollector.h"

#include "Frame.h"

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
    for (const char byte : bytes)
        take(byte, events);
    return events;
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
        if (byte == kDle)
            m_state = State::DataEscape;
        else
            takeData(byte, events);
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
        takeData(byte, events);
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

void ReplyCollector::takeData(char byte, QList<Event>& events)
{
    m_data.append(byte);
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
