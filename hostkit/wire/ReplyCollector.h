#ifndef MICRO850_HOST_REPLYCOLLECTOR_H
#define MICRO850_HOST_REPLYCOLLECTOR_H

#include <QtCore/QByteArray>
#include <QtCore/QList>

namespace micro850::host {

/// Finds the frames and the link controls in a stream of received bytes, however it is cut into
/// pieces. A frame ends with DLE ETX and two CRC bytes; a number of bytes says nothing. The class
/// itself does no input or output.
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
        /// The bytes on the line: the control; or the frame with everything that came within it,
        /// and with the acknowledgement directly before it, if there was one.
        QByteArray raw;
    };

    /// Drops a frame that has begun.
    void reset();
    /// Drops a frame that has begun and returns the bytes of it that have come.
    QByteArray abandon();
    /// Parses bytes as they arrived. Returns the frames and controls that they complete, in order.
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
    void parse(char byte, QList<Event>& events);
    void parseOutsideEscape(char byte, QList<Event>& events);
    void parseDataEscape(char byte, QList<Event>& events);
    void begin();
    void end(char crcHigh, QList<Event>& events);
    void reportControl(Kind kind, QList<Event>& events) const;

    State m_state = State::Outside;
    QByteArray m_data;
    QByteArray m_raw;
    quint8 m_crcLow = 0;
    bool m_illegal = false;
    int m_noise = 0;
};

/// The frame of a reply as the driver needs it. It begins with a DLE ACK, from which the driver
/// counts offsets; a controller may have sent it long before or not at all. If both CRC bytes are
/// 10, the driver's undoubling makes one byte of them and would cut off the last value byte. A
/// filler byte after them, which the driver's search for the end skips, keeps the value whole. The
/// driver finds the replies of the connection set-up by their end; these get no filler byte
/// (`searchedFor` is false).
QByteArray replyForDriver(const QByteArray& data, bool searchedFor);

} // namespace micro850::host

#endif
