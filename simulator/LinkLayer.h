#ifndef MICRO850_SIMULATOR_LINKLAYER_H
#define MICRO850_SIMULATOR_LINKLAYER_H

#include "Bytes.h"
#include "Clock.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>

namespace micro850::sim {

/// CRC-16/ARC: polynomial x^16 + x^15 + x^2 + 1 sent low bit first, start 0.
std::uint16_t linkCrc(const Bytes& bytes);

/// Options of the link, with a controller's usual defaults.
struct LinkOptions
{
    bool duplicateDetection = true;
    Duration ackTimeout{1000000};
    int enquiryLimit = 3;
    int nakLimit = 3;
};

/// What came and went, for a person and for tests.
struct LinkCounters
{
    unsigned messages = 0;   ///< good messages
    unsigned corrupt = 0;    ///< bad CRC or illegal escape, answered with DLE NAK
    unsigned duplicates = 0; ///< acknowledged and not executed
    unsigned abandoned = 0;  ///< begun and cut off by a new DLE STX
    unsigned retransmissions = 0;
    unsigned enquiries = 0;   ///< DLE ENQ sent
    unsigned undelivered = 0; ///< own messages given up
    unsigned full = 0;        ///< good messages refused, as too many replies wait to go out
};

/// One end of a DF1 full-duplex line: takes the peer's bytes, answers each message with DLE ACK or
/// DLE NAK, and sees that its own messages are acknowledged: one is on the wire at a time, the
/// others wait until it is acknowledged or given up.
class LinkLayer
{
public:
    /// Called for each good new message with its data, undoubled; gives the reply's data, or
    /// nothing.
    using Handler = std::function<std::optional<Bytes>(const Bytes&)>;

    LinkLayer(const Clock& clock, Handler handler, LinkOptions options = LinkOptions());

    void receive(const Bytes& bytes);
    /// Looks at the time: an unacknowledged message is asked for or given up.
    void tick();
    /// Takes the bytes that are to be sent.
    Bytes transmit();
    /// Forgets what was under way and what was counted, as a power cycle does.
    void reset();

    const LinkCounters& counters() const { return m_counters; }

private:
    enum class State {
        Idle,
        Control, ///< behind a DLE outside a message
        Message,
        Escape, ///< behind a DLE within a message
        CrcLow,
        CrcHigh
    };

    void take(std::uint8_t byte);
    void takeControl(std::uint8_t byte);
    void takeEscape(std::uint8_t byte);
    bool takeResponse(std::uint8_t byte);
    void takeMessage(std::uint16_t crc);
    void beginMessage();
    void acknowledged();
    void refused();
    void asked();
    bool isDuplicate(const Bytes& data);
    void answer(std::uint8_t control);
    void send(const Bytes& data);
    void sendNext();
    void resend();
    void giveUp();

    const Clock& m_clock;
    Handler m_handler;
    LinkOptions m_options;
    LinkCounters m_counters;

    State m_state = State::Idle;
    Bytes m_data;
    bool m_illegal = false; ///< an escape in this message means nothing
    std::uint8_t m_crcLow = 0;
    std::uint8_t m_lastAnswer;
    Bytes m_lastMessage; ///< identity of the last good message

    Bytes m_out;
    std::optional<Bytes> m_awaiting; ///< own message on the wire, not acknowledged
    std::deque<Bytes> m_waiting;     ///< own messages that go out behind it
    Duration m_deadline{0};
    int m_enquiries = 0;
    int m_naks = 0;
};

} // namespace micro850::sim

#endif
