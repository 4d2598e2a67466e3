#ifndef MICRO850_TESTS_SCENARIO_FIXTURE_H
#define MICRO850_TESTS_SCENARIO_FIXTURE_H

#include "FaultyLine.h"
#include "driver_fixture.h"
#include "fixed_time_of_day.h"

#include <memory>
#include <string>
#include <vector>

/// The driver, a plain host and a simulated controller on a line with faults, all on virtual time.
/// The host does what the driver's interface asks for and no more: it empties the input, sends,
/// collects until a frame has ended or the time is over, and hands over what came, whatever it is.
class ScenarioTest : public DriverTest
{
protected:
    /// One transmission of the host and what came back.
    struct Exchange
    {
        std::string request; ///< like "2 read A[3] x1"
        QByteArray frame;    ///< as sent
        QByteArray reply;    ///< as handed over; empty after a silence
        int retValue = 0;    ///< of the last call of DataCom
    };

    /// What the host waits for a reply.
    static constexpr int kTimeoutMs = 300;

    ScenarioTest();
    /// Everything as at the start, but for the tags that the controller has.
    void restart();

    /// Gives the controller these tags: the inside of a tag file's list.
    void defineTags(const std::string& tags);
    /// Lets these faults strike: the inside of a fault script's list.
    void faults(const std::string& rules);
    /// Replaces the cyclic list. Tags that are declared as carrying an index are read from there.
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
    /// Transacts until the condition holds; the number of transmissions it took, or -1 after
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
    /// What the host sends, decoded, since the last call.
    std::vector<std::string> takeRequests();

    /// The value as a screen gets it: bytes in hexadecimal, "none" while there is none.
    std::string shown(const char* tag, int count = 1, int element = 0, int station = 1);
    /// The controller's bytes of an element.
    std::string inController(const char* tag, std::size_t element = 0);
    void setInController(const char* tag, const char* bytes, std::size_t element = 0);

    micro850::VirtualClock clock;
    micro850::sim::Controller controller{clock, micro850::sim::TagTable()};
    micro850::sim::FaultyLine& line() { return *m_line; }
    std::vector<Exchange> exchanges;
    /// Before the driver gets a reply: what a more careful host does. False keeps it from the
    /// driver.
    std::function<bool(const QByteArray& frame, const QByteArray& reply)> accepts;
    /// True: a reply begins with its DLE STX, and a DLE ACK is put in front for the driver; where
    /// its CRC is 10 10, a filler byte behind.
    bool looksForFrame = false;
    /// True for a request that no controller hears.
    std::function<bool(const Protocol& sent)> isDead;
    /// False: what arrived before a request is taken for its reply.
    bool emptiesInput = true;
    /// Calls of the driver's two entry points of the poll cycle.
    int calls = 0;

private:
    void takeInput();
    QByteArray collect();
    void handOver(Protocol& sent, QByteArray reply, Exchange& exchange);
    int dataCom(QByteArray& reply, int length);

    std::unique_ptr<micro850::sim::FaultyLine> m_line;
    FixedTimeOfDay m_timeOfDay;
    std::size_t m_taken = 0;
    QByteArray m_input; ///< arrived and not looked at
};

/// A request frame as a line: "0 identity", "1 open", "2 read A[3] x1", "3 write B x1 = 05 00".
std::string requestText(const QByteArray& frame);
/// What a careful host looks at before it hands a reply over: CRC, command, transaction number.
bool isAnswerTo(const QByteArray& frame, const QByteArray& reply);

#endif
