#ifndef MICRO850_SIMULATOR_LINKLAYER_H
#define MICRO850_SIMULATOR_LINKLAYER_H

#include "Bytes.h"
#include "Clock.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>

namespace micro850::sim {

/// Options of the link, with a controller's usual defaults.
struct LinkOptions
{
    bool duplicateDetection = true;
    Duration ackTimeout{1000000};
    int enquiryLimit = 3;
    int nakLimit = 3;
};

/// Counts of what the link received and sent.
struct LinkCounters
{
    unsigned messages = 0;   ///< good messages
    unsigned corrupt = 0;    ///< bad CRC or illegal escape, answered with DLE NAK
    unsigned duplicates = 0; ///< acknowledged and not executed
    unsigned abandoned = 0;  ///< begun and cut off by a new DLE STX
    unsigned retransmissions = 0;
    unsigned enquiries = 0;   ///< DLE ENQ sent
    unsigned undelivered = 0; ///< own messages given up
    unsigned full = 0;        ///< good messages refused because too many replies wait to be sent
};

/// The controller's end of a DF1 full-duplex line. It parses the peer's bytes, answers each message
/// with DLE ACK or DLE NAK, and makes sure that its own messages are acknowledged. Only one of them
/// is on the wire at a time; the others wait until it is acknowledged or given up.
class LinkLayer
{
public:
    /// Called for each good new message with its data, each doubled DLE as one byte. Returns the
    /// data of the reply, or nothing.
    using Handler = std::function<std::optional<Bytes>(const Bytes&)>;

    LinkLayer(const Clock& clock, Handler handler, LinkOptions options = LinkOptions());

    void receive(const Bytes& bytes);
    /// Checks the time: after the time-out, asks for the missing acknowledgement or gives up.
    void tick();
    /// Returns the bytes to send and removes them from the output.
    Bytes transmit();
    /// Forgets unfinished messages and all counts, as a power cycle does.
    void reset();

    const LinkCounters& counters() const { return m_counters; }
    /// True while a message of this end is on the wire or waits for its turn.
    bool awaitsAcknowledgement() const { return m_awaited || !m_waiting.empty(); }

private:
    enum class State {
        Idle,
        Control, ///< after a DLE outside a message
        Message,
        Escape, ///< after a DLE within a message
        CrcLow,
        CrcHigh
    };

    void handleByte(std::uint8_t byte);
    void handleControl(std::uint8_t byte);
    void handleEscape(std::uint8_t byte);
    bool handleResponse(std::uint8_t byte);
    void handleAck();
    void handleNak();
    void handleEnquiry();
    void beginMessage();
    void handleMessage(std::uint16_t crc);
    bool isDuplicate(const Bytes& data);
    void respond(std::uint8_t control);
    void send(const Bytes& data);
    void sendNext();
    void sendAwaited();
    void giveUp();

    const Clock& m_clock;
    Handler m_handler;
    LinkOptions m_options;
    LinkCounters m_counters;

    State m_state = State::Idle;
    Bytes m_data;
    bool m_illegal = false; ///< this message has an escape without a meaning
    std::uint8_t m_crcLow = 0;
    std::uint8_t m_lastResponse; ///< ACK or NAK
    Bytes m_lastMessage;         ///< identity of the last good message

    Bytes m_out;
    std::optional<Bytes> m_awaited; ///< own frame on the wire, not yet acknowledged
    std::deque<Bytes> m_waiting;    ///< own frames to send after it
    Duration m_deadline{0};
    int m_enquiries = 0;
    int m_naks = 0;
};

} // namespace micro850::sim

#endif
