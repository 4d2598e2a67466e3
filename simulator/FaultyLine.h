#ifndef MICRO850_SIMULATOR_FAULTYLINE_H
#define MICRO850_SIMULATOR_FAULTYLINE_H

#include "Controller.h"
#include "Dice.h"
#include "FaultScript.h"
#include "TransmissionSplitter.h"

#include <deque>
#include <functional>
#include <list>
#include <map>

namespace micro850::sim {

/// The line to a controller, with the faults of a script. It is used like the controller itself:
/// bytes in, bytes out, time from the same clock. The same seed and the same traffic give the same
/// faults.
class FaultyLine
{
public:
    /// A fault that struck one message.
    struct Event
    {
        Duration time{0};
        Side side = Side::Replies;
        unsigned message = 0;
        FaultKind kind = FaultKind::LoseByte;
        std::string what; ///< like "byte 7: bit 3 flipped, 5A becomes 52"
    };
    using Observer = std::function<void(const Event&)>;

    FaultyLine(const Clock& clock, Controller& controller, FaultScript script = {},
               std::uint64_t seed = 1);

    /// Called with each fault as it strikes.
    void setObserver(Observer observer) { m_observer = std::move(observer); }
    /// Adds a rule; messages are counted from the beginning.
    void add(const Fault& fault) { m_script.push_back(fault); }
    /// Removes all rules. Bytes on their way still arrive.
    void clear() { m_script.clear(); }

    void receive(const Bytes& bytes);
    void tick();
    /// Returns the bytes that have arrived at the host's end and removes them.
    Bytes transmit();
    /// While true the line is dead in both directions.
    bool isHungUp() const { return m_clock.now() < m_hungUpUntil; }

    /// Messages on this side so far.
    unsigned messages(Side side) const { return m_sides[index(side)].messages; }
    /// Faults so far, by kind.
    const std::map<FaultKind, unsigned>& counts() const { return m_counts; }

private:
    using Transmission = TransmissionSplitter::Transmission;
    /// Bytes on their way.
    struct Piece
    {
        Duration due{0};
        Bytes bytes;
        std::optional<CipFailure> failure;
    };
    struct Held
    {
        unsigned until = 0; ///< number of the message before which it arrives
        Piece piece;
    };
    struct SideState
    {
        unsigned messages = 0;
        TransmissionSplitter splitter;
        std::deque<Piece> pieces; ///< in the order in which they arrive
        std::list<Held> held;
    };
    /// One transmission and what the rules have done to it so far.
    struct Passage
    {
        Passage(Side from, unsigned message, Transmission transmission)
            : side(from), number(message), sent(std::move(transmission))
        {
        }

        Side side;
        unsigned number;
        Transmission sent;
        bool withheld = false;
        unsigned copies = 1;
        Duration delay{0};
        std::optional<Duration> gap;
        unsigned later = 0;
        std::optional<CipFailure> failure;
    };

    static std::size_t index(Side side) { return side == Side::Requests ? 0 : 1; }

    void pass(Side side, const Transmission& sent);
    bool strikes(const Fault& fault, unsigned number);
    void apply(const Fault& fault, Passage& passage);
    void applyToBytes(const Fault& fault, Passage& passage);
    void applyToTime(const Fault& fault, Passage& passage);
    void applyToAnswer(const Fault& fault, Passage& passage);
    Bytes randomBytes(const Fault& fault);
    void withholdAck(const Fault& fault, Passage& passage);
    void refuse(const Fault& fault, Passage& passage);
    void hangUp(const Fault& fault, const Passage& passage);
    void report(const Fault& fault, const Passage& passage, const std::string& what);
    void send(Passage& passage);
    void schedule(Side side, Piece piece);
    void releaseHeld(Side side);
    void deliver();
    void execute(const Piece& piece);
    void collectReplies();

    const Clock& m_clock;
    Controller& m_controller;
    FaultScript m_script;
    Dice m_dice;
    Observer m_observer;
    SideState m_sides[2];
    Bytes m_out;
    Duration m_lastInput{0};
    Duration m_hungUpUntil{0};
    Bytes m_previousReply;
    std::map<FaultKind, unsigned> m_counts;
};

/// The event as a line of text: `reply 12: byte 7: bit 3 flipped, 5A becomes 52`.
std::string describe(const FaultyLine::Event& event);

} // namespace micro850::sim

#endif
