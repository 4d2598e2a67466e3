#ifndef MICRO850_HOST_REPLYCOLLECTOR_H
#define MICRO850_HOST_REPLYCOLLECTOR_H

#include "ByteSlice.h"

#include <QtCore/QVarLengthArray>

namespace micro850::host {

/// Finds the frames and the link controls in a stream of received bytes, however it is cut into
/// pieces. A frame ends with DLE ETX and two CRC bytes; a number of bytes says nothing. An
/// acknowledgement is no event: it comes with each frame, and nobody waits for one. The class
/// itself does no input or output.
class ReplyCollector
{
public:
    enum class Kind {
        Frame,   ///< a frame with the right CRC; `data` holds its application data, undoubled
        Corrupt, ///< a frame with a wrong CRC, an illegal escape or too many bytes
        Nak,
        Enq
    };
    struct Event
    {
        Kind kind;
        ByteSlice data;
        /// The bytes on the line: the control; or the frame with everything that came within it,
        /// and with the acknowledgement directly before it, if there was one.
        QByteArray raw;
        bool regular; ///< `raw` is what wireFrame() makes of `data`

        /// A frame as wireFrame() builds it: the bytes that came, unless others came before or
        /// within it.
        QByteArray frame() const;
    };
    /// One read brings a frame, rarely more.
    using Events = QVarLengthArray<Event, 4>;

    /// Drops a frame that has begun.
    void reset();
    /// Drops a frame that has begun and returns the bytes of it that have come.
    QByteArray abandon();
    /// Parses bytes as they arrived. Returns the frames and controls that they complete, in order.
    Events feed(QByteArray bytes);
    /// True while a frame has begun and not ended.
    bool inFrame() const
    {
        return m_state == State::Data || m_state == State::DataEscape || inCrc();
    }

    /// The bytes of a frame that has begun, as abandon() returns them.
    QByteArray begun() const { return raw(); }

    /// Bytes outside frames and controls so far.
    int noiseBytes() const { return m_noise; }

private:
    enum class State { Outside, Escape, Data, DataEscape, CrcLow, CrcHigh };

    bool inCrc() const { return m_state == State::CrcLow || m_state == State::CrcHigh; }
    void skipPlain();
    void parse(char byte, Events& events);
    void parseOutsideEscape(char byte, Events& events);
    void parseDataEscape(char byte, Events& events);
    void begin();
    void breakRun(int end);
    void reportControl(Kind kind, char control, Events& events);
    void leaveControlOut();
    ByteSlice popData(const QByteArray& frame);
    void end(Events& events);
    void leaveFrame();
    void dropParsed();
    QByteArray raw() const { return m_bytes.mid(m_begin, m_at - m_begin); }

    State m_state = State::Outside;
    /// What came since the last event, and within feed() also before it. The data of a frame are
    /// undoubled only if they have to be: those of most frames are a slice of these bytes.
    QByteArray m_bytes;
    int m_begin = 0;        ///< where the frame begins, with the acknowledgement before it
    int m_at = 0;           ///< the next byte to parse
    int m_run = 0;          ///< where the data begin that are not in `m_undoubled`
    QByteArray m_undoubled; ///< the data before the last doubled byte or embedded control
    int m_dataSize = 0;     ///< of all data of the frame so far
    bool m_oneRun = true;   ///< nothing was doubled or embedded
    bool m_regular = true;
    bool m_illegal = false;
    int m_noise = 0;
};

/// The frame of a reply, as wireFrame() builds it, as the driver needs it. It begins with a DLE
/// ACK, from which the driver counts offsets; a controller may have sent it long before or not at
/// all. If both CRC bytes are 10, the driver's undoubling makes one byte of them and would cut off
/// the last value byte. A filler byte after them, which the driver's search for the end skips,
/// keeps the value whole. The driver finds the replies of the connection set-up by their end; these
/// get no filler byte (`searchedFor` is false).
QByteArray replyForDriver(const QByteArray& frame, bool searchedFor);

} // namespace micro850::host

#endif
