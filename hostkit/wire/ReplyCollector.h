#ifndef MICRO850_HOST_REPLYCOLLECTOR_H
#define MICRO850_HOST_REPLYCOLLECTOR_H

#include <QtCore/QByteArray>
#include <QtCore/QList>

namespace micro850::host {

/// Finds the frames and the link controls in a stream of received bytes, however it is cut into
/// pieces. A frame is complete with its DLE ETX and two CRC bytes, not with a byte count. No input
/// or output of its own.
class ReplyCollector
{
public:
    enum class Kind {
        Frame,   ///< a frame with the right CRC; `data` holds its application data, undoubled
        Corrupt, ///< a frame with a wrong CRC, an illegal escape or too many bytes
        Ack,
        Nak,
        Enq
    };
    struct Event
    {
        Kind kind;
        QByteArray data;
        /// What stood on the line: the control, or the frame with the acknowledgement right in
        /// front of it, if any, and all that came within it.
        QByteArray raw;
    };

    /// Forgets a frame that has begun.
    void reset();
    /// The same, and gives what of it has come.
    QByteArray abandon();
    /// Takes bytes as they arrived; gives what they complete, in order.
    QList<Event> feed(const QByteArray& bytes);
    /// True while a frame has begun and not ended.
    bool inFrame() const
    {
        return m_state == State::Data || m_state == State::DataEscape || inCrc();
    }

    /// Bytes outside frames and controls so far.
    int noiseBytes() const { return m_noise; }

private:
    enum class State { Outside, Escape, Data, DataEscape, CrcLow, CrcHigh };

    bool inCrc() const { return m_state == State::CrcLow || m_state == State::CrcHigh; }
    int plainBytes(const char* at, const char* end) const;
    void take(char byte, QList<Event>& events);
    void takeOutsideEscape(char byte, QList<Event>& events);
    void takeDataEscape(char byte, QList<Event>& events);
    void begin();
    void end(char crcHigh, QList<Event>& events);
    void tellControl(Kind kind, QList<Event>& events) const;

    State m_state = State::Outside;
    QByteArray m_data;
    QByteArray m_raw;
    quint8 m_crcLow = 0;
    bool m_illegal = false;
    int m_noise = 0;
};

/// The reply as the driver counts offsets: from a DLE ACK, which a controller may have sent long
/// before or not at all. Where both CRC bytes are 10, the driver's undoubling takes them for one
/// and would cut off the last value byte; a filler byte behind them, which its search for the end
/// skips, keeps the value whole. The replies of the connection set-up are found by their end and
/// get none
/// (`searchedFor` false).
QByteArray replyForDriver(const QByteArray& data, bool searchedFor);

} // namespace micro850::host

#endif
