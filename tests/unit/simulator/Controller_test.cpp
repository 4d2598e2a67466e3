#include "Controller.h"

#include "bytes.h"

#include <gtest/gtest.h>

namespace micro850::sim {
namespace {

TagTable tagTableOf(const std::string& tags)
{
    return TagTable::fromText("{\"tags\": [" + tags + "]}", "tags.json");
}

class ControllerTest : public ::testing::Test
{
protected:
    /// The data of the controller's reply to a message's data, without header and link bytes.
    std::string answer(Bytes data)
    {
        data[4] = ++m_transaction;
        controller.receive(framed(data));
        const Bytes out = controller.transmit();
        controller.receive(hex("10 06"));
        // Before the data: DLE ACK DLE STX and eight bytes of header. After it: DLE ETX and CRC.
        return out.size() < 16 ? text(out) : text({out.begin() + 12, out.end() - 4});
    }
    std::string readOf(char tag)
    {
        Bytes data = hex("00 01 0A 00 00 00 00 00") + m_connection +
                     hex("00 45 52 02 91 01 00 00 01 00 00 00 00 00");
        data[16] = static_cast<std::uint8_t>(tag);
        return answer(data).substr(12);
    }
    void connect()
    {
        const std::string reply =
            answer(hex("00 01 0B 00 00 00 00 00 54 02 20 06 24 01 05 F7 02 00 00 80 01 00 01 80 02 "
                       "00 34 12 01 02 03 02 02 00 00 00 80 84 1E 00 F8 43 80 84 1E 00 F8 43 A3 02 "
                       "20 02 24 01"));
        m_connection = hex(reply.substr(12, 5));
    }

    VirtualClock clock;
    Controller controller{clock, tagTableOf(R"({"name": "A", "type": "INT", "value": 4660},
                                    {"name": "B", "type": "INT", "value": 1})")};

private:
    std::uint8_t m_transaction = 0x20;
    Bytes m_connection = hex("00 00");
};

const char kConnectionNotFound[] = "D2 00 01 01 07 01";

TEST_F(ControllerTest, ForgetsConnectionsAndResetsValuesInAPowerCycle)
{
    connect();
    controller.tags().find("A")->elements[0] = hex("05 00");
    EXPECT_EQ(readOf('A'), "D2 00 00 00 C3 00 05 00");
    controller.powerCycle(false);
    EXPECT_EQ(readOf('A'), kConnectionNotFound);
    connect();
    EXPECT_EQ(readOf('A'), "D2 00 00 00 C3 00 34 12");
}

TEST_F(ControllerTest, KeepsValuesInAPowerCycleThatRetainsThem)
{
    connect();
    controller.tags().find("A")->elements[0] = hex("05 00");
    controller.powerCycle(true);
    connect();
    EXPECT_EQ(readOf('A'), "D2 00 00 00 C3 00 05 00");
}

TEST_F(ControllerTest, ExecutesARepeatedRequestAfterAPowerCycle)
{
    const Bytes identity = hex("10 02 00 01 0B 00 01 00 00 00 01 02 20 01 24 01 10 03 8E 35");
    controller.receive(identity);
    controller.transmit();
    controller.powerCycle(true);
    controller.receive(identity);
    EXPECT_GT(controller.transmit().size(), 2u);
}

TEST_F(ControllerTest, AddsRemovesAndRetypesTagsInADownload)
{
    connect();
    EXPECT_EQ(readOf('C'), "D2 00 05 00");
    controller.download(tagTableOf(R"({"name": "B", "type": "DINT", "value": 2},
                               {"name": "C", "type": "SINT", "value": 3})"));
    EXPECT_EQ(readOf('A'), "D2 00 05 00");
    EXPECT_EQ(readOf('B'), "D2 00 00 00 C4 00 02 00 00 00");
    EXPECT_EQ(readOf('C'), "D2 00 00 00 C2 00 03");
}

TEST_F(ControllerTest, AnswersThroughTheHandlerThatReplacesTheServer)
{
    controller.answerWith([](const Bytes& message) {
        return std::optional<Bytes>(hex("01 00 4B 00 00 00 00 00 AA") + Bytes{message[4]});
    });
    EXPECT_EQ(answer(hex("00 01 0B 00 00 00 00 00 01 02 20 01 24 01")), "AA 21");
}

} // namespace
} // namespace micro850::sim
