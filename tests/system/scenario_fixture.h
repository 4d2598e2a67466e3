#ifndef MICRO850_TESTS_SCENARIO_FIXTURE_H
#define MICRO850_TESTS_SCENARIO_FIXTURE_H

#include "FaultyLine.h"
#include "driver_fixture.h"
#include "fixed_time_of_day.h"

#include <memory>
#include <string>
#include <vector>

/// The driver, a plain host and a simulated controller on a line with faults, all on virtual time.
/// The host does only what the driver's interface requires: it discards old input, sends, receives
/// until a frame ends or the time-out passes, and gives the driver the received bytes unchecked.
class ScenarioTest : public DriverTest
{
protected:
    /// One transmission of the host and its reply.
    struct Exchange
    {
        std::string request; ///< like "2 read A[3] x1"
        QByteArray frame;    ///< as sent
        QByteArray reply;    ///< as given to the driver; empty after a time-out
        int retValue = 0;    ///< of the last call of DataCom
    };

    /// How long the host waits for a reply.
    static constexpr int kTimeoutMs = 300;

    ScenarioTest();
    /// Restores the state at the start, except the tags of the controller.
    void restart();

    /// Gives the controller these tags: the inside of a tag file's list.
    void defineTags(const std::string& tags);
    /// Adds these faults: the inside of a fault script's list.
    void faults(const std::string& rules);
    /// Replaces the cyclic list. Tags that are declared as indexed are read from that element on.
    struct Variable
    {
        const char* tag;
        int element;
        int count;
    };
    void pollCyclically(const std::vector<Variable>& variables);
    /// Queues a write of host bytes; the callback's kind is 3.
    int write(const char* tag, const QByteArray& value, int count = 1, int element = 0,
              int index = 1, int station = 1);

    /// One transaction; false when the driver had nothing to send.
    bool transact();
    void transact(int times);
    /// Transacts until the condition holds. Returns the number of transmissions, or -1 after
    /// `limit`.
    template<typename Condition> int transactUntil(Condition condition, int limit = 200)
    {
        for (int i = 0; i <= limit; ++i) {
            if (condition())
                return i;
            transact();
        }
        return -1;
    }
    void pass(int ms);
    /// The requests that the host sent since the last call, decoded.
    std::vector<std::string> popRequests();

    /// The value as a screen gets it: bytes in hexadecimal, or "none".
    std::string shown(const char* tag, int count = 1, int element = 0, int station = 1);
    /// The controller's bytes of an element.
    std::string inController(const char* tag, std::size_t element = 0);
    void setInController(const char* tag, const char* bytes, std::size_t element = 0);

    micro850::VirtualClock clock;
    micro850::sim::Controller controller{clock, micro850::sim::TagTable()};
    micro850::sim::FaultyLine& line() { return *m_line; }
    std::vector<Exchange> exchanges;
    /// Called with each reply, like the checks of a more careful host. False: the driver does not
    /// get the reply.
    std::function<bool(const QByteArray& frame, const QByteArray& reply)> accepts;
    /// True: the host searches for DLE STX and puts a DLE ACK before it for the driver. After a CRC
    /// of 10 10 it appends a filler byte.
    bool looksForFrame = false;
    /// True for a request that no controller receives.
    std::function<bool(const Protocol& sent)> isDead;
    /// False: bytes that arrived before a request count as its reply.
    bool emptiesInput = true;
    /// Number of calls of ComCommunication and DataCom.
    int calls = 0;

private:
    void receiveInput();
    QByteArray collect();
    void passToDriver(Protocol& sent, QByteArray reply, Exchange& exchange);
    int dataCom(QByteArray& reply, int length);

    std::unique_ptr<micro850::sim::FaultyLine> m_line;
    FixedTimeOfDay m_timeOfDay;
    std::size_t m_popped = 0;
    QByteArray m_input; ///< received but not yet examined
};

/// A request frame as a line: "0 identity", "1 open", "2 read A[3] x1", "3 write B x1 = 05 00".
std::string requestText(const QByteArray& frame);
/// What a careful host checks before the driver gets a reply: CRC, command, transaction number.
bool isAnswerTo(const QByteArray& frame, const QByteArray& reply);

#endif
