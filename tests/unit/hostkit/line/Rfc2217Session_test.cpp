#include "Rfc2217Session.h"

#include "wire.h"

#include <gtest/gtest.h>

using namespace micro850::host;
using wire::hex;
using State = Rfc2217Session::State;

namespace {

// FF FB: WILL, FF FC: WONT, FF FD: DO, FF FE: DONT. 00: binary, 03: suppress go-ahead, 2C: port.
const char kBegin[] = "FF FB 2C FF FB 00 FF FB 03 FF FD 00 FF FD 03";
const char kAllAgreed[] = "FF FD 2C FF FD 00 FF FD 03 FF FB 00 FF FB 03";
// 38,400 baud, 8 data bits, no parity, 1 stop bit.
const char kConfirmed[] = "FF FA 2C 65 00 00 96 00 FF F0 FF FA 2C 66 08 FF F0 "
                          "FF FA 2C 67 01 FF F0 FF FA 2C 68 01 FF F0";

class Rfc2217SessionTest : public ::testing::Test
{
protected:
    Rfc2217SessionTest() { session.begin(); }

    // What the session sends for these bytes.
    QByteArray sentFor(const QByteArray& bytes) { return session.feed(bytes, data); }
    QByteArray sentFor(const char* bytes) { return sentFor(hex(bytes)); }
    void makeReady()
    {
        sentFor(kAllAgreed);
        sentFor(kConfirmed);
        ASSERT_EQ(session.state(), State::Ready) << session.missing().toStdString();
    }
    std::string error() const
    {
        EXPECT_EQ(session.state(), State::Failed);
        return session.error().toStdString();
    }

    Rfc2217Session session{PortSettings(), "plc:2000"};
    QByteArray data;
};

} // namespace

TEST_F(Rfc2217SessionTest, BeginsWithItsOffers)
{
    EXPECT_EQ(Rfc2217Session(PortSettings(), "plc:2000").begin(), hex(kBegin));
    EXPECT_EQ(session.state(), State::Negotiating);
}

TEST_F(Rfc2217SessionTest, SetsThePortWhenTheServerAgreesToTheOption)
{
    EXPECT_EQ(sentFor("FF FD 2C"),
              hex("FF FA 2C 01 00 00 96 00 FF F0" // 38,400 baud
                  "FF FA 2C 02 08 FF F0"          // 8 data bits
                  "FF FA 2C 03 01 FF F0"          // no parity
                  "FF FA 2C 04 01 FF F0"          // 1 stop bit
                  "FF FA 2C 05 01 FF F0"          // no flow control
                  "FF FA 2C 05 0E FF F0"          // nor inbound
                  "FF FA 2C 05 08 FF F0"          // DTR on
                  "FF FA 2C 05 0B FF F0"          // RTS on
                  "FF FA 2C 0A 00 FF F0"          // no notices of the line's state
                  "FF FA 2C 0B 00 FF F0"          // nor the modem's
                  "FF FA 2C 0C 03 FF F0"));       // drop what waits at the server
    EXPECT_EQ(session.state(), State::Negotiating);
}

TEST_F(Rfc2217SessionTest, SendsTheValuesOfTheProject)
{
    PortSettings port;
    port.baud = 0xFF00; // each FF is doubled
    port.dataBits = 7;
    port.parity = Parity::Even;
    port.stopBits = 2;
    Rfc2217Session other(port, "plc:2000");
    other.begin();
    const QByteArray sent = other.feed(hex("FF FD 2C"), data);
    EXPECT_TRUE(sent.startsWith(hex("FF FA 2C 01 00 00 FF FF 00 FF F0 FF FA 2C 02 07 FF F0 "
                                    "FF FA 2C 03 03 FF F0 FF FA 2C 04 02 FF F0")))
        << wire::text(sent);
    port.parity = Parity::Odd;
    Rfc2217Session odd(port, "plc:2000");
    odd.begin();
    EXPECT_TRUE(odd.feed(hex("FF FD 2C"), data).contains(hex("FF FA 2C 03 02 FF F0")));
}

TEST_F(Rfc2217SessionTest, IsReadyWhenEverythingIsConfirmed)
{
    sentFor(kAllAgreed);
    EXPECT_EQ(session.state(), State::Negotiating);
    sentFor("FF FA 2C 65 00 00 96 00 FF F0 FF FA 2C 66 08 FF F0 FF FA 2C 67 01 FF F0");
    EXPECT_EQ(session.state(), State::Negotiating);
    sentFor("FF FA 2C 68 01 FF F0");
    EXPECT_EQ(session.state(), State::Ready);
}

TEST_F(Rfc2217SessionTest, IsReadyOnlyWhenBothDirectionsPassAllBytes)
{
    sentFor("FF FD 2C FF FD 00");
    sentFor(kConfirmed);
    EXPECT_EQ(session.state(), State::Negotiating);
    EXPECT_EQ(session.missing(),
              QString("plc:2000 does not finish the negotiation of RFC 2217 (enable it at the "
                      "server, or set the server to raw TCP and use tcp://plc:2000)"));
    sentFor("FF FB 00");
    EXPECT_EQ(session.state(), State::Ready);
}

TEST_F(Rfc2217SessionTest, CarriesDataOnlyWhenItIsReady)
{
    sentFor("41 42");
    sentFor(kAllAgreed);
    sentFor("43");
    EXPECT_EQ(data, QByteArray());
    sentFor(hex(kConfirmed) + hex("10 02 FF FF 0D 00 FF F1 10 03"));
    EXPECT_EQ(data, hex("10 02 FF 0D 00 10 03"));
}

TEST_F(Rfc2217SessionTest, DoublesByteFfOnTheWayOut)
{
    EXPECT_EQ(Rfc2217Session::escaped(hex("10 FF 0D 00 FF")), hex("10 FF FF 0D 00 FF FF"));
}

TEST_F(Rfc2217SessionTest, AnswersNothingThatIsAgreedAlready)
{
    makeReady();
    for (int i = 0; i < 1000; ++i)
        EXPECT_EQ(sentFor(kAllAgreed), QByteArray());
    EXPECT_EQ(session.state(), State::Ready);
}

TEST_F(Rfc2217SessionTest, AgreesToWhatTheServerOffersFirst)
{
    Rfc2217Session passive(PortSettings(), "plc:2000");
    // Without begin() nothing was asked for.
    EXPECT_EQ(passive.feed(hex("FF FB 00 FF FD 03"), data), hex("FF FD 00 FF FB 03"));
}

TEST_F(Rfc2217SessionTest, AnswersEachChangeOfTheServersMind)
{
    makeReady();
    EXPECT_EQ(sentFor("FF FC 03"), hex("FF FE 03"));
    EXPECT_EQ(sentFor("FF FB 03"), hex("FF FD 03"));
    EXPECT_EQ(sentFor("FF FE 03 FF FD 03"), hex("FF FC 03 FF FB 03"));
    EXPECT_EQ(session.state(), State::Ready);
}

// Some servers offer the port's option in both directions.
TEST_F(Rfc2217SessionTest, SetsThePortOnlyOnce)
{
    EXPECT_EQ(sentFor("FF FB 2C"), hex("FF FD 2C"));
    EXPECT_TRUE(sentFor("FF FD 2C").startsWith(hex("FF FA 2C 01")));
    Rfc2217Session other(PortSettings(), "plc:2000");
    other.begin();
    other.feed(hex("FF FD 2C"), data);
    EXPECT_EQ(other.feed(hex("FF FB 2C"), data), hex("FF FD 2C"));
}

TEST_F(Rfc2217SessionTest, RefusesOtherOptionsOnceEach)
{
    // Echo and the terminal's type.
    EXPECT_EQ(sentFor("FF FB 01 FF FD 18"), hex("FF FE 01 FF FC 18"));
    EXPECT_EQ(sentFor("FF FB 01 FF FD 18 FF FC 01 FF FE 18 FF FB 01"), QByteArray());
    makeReady();
}

TEST_F(Rfc2217SessionTest, EndsWithAServerThatChangesItsMindForEver)
{
    makeReady();
    QByteArray sent;
    for (int i = 0; i < 10000; ++i)
        sent += sentFor("FF FC 03 FF FB 03");
    EXPECT_LE(sent.size(), 300);
    EXPECT_EQ(error(), "plc:2000 negotiates without end (set the server to raw TCP and use "
                       "tcp://plc:2000, or use another port)");
}

TEST_F(Rfc2217SessionTest, FailsWithAServerThatDoesNotKnowThePortsOption)
{
    sentFor("FF FE 2C");
    EXPECT_EQ(error(), "plc:2000 speaks telnet, but no RFC 2217 (enable it at the server, or set "
                       "the server to raw TCP and use tcp://plc:2000)");
    EXPECT_FALSE(session.refusesSettings());
}

TEST_F(Rfc2217SessionTest, FailsWithAServerThatAltersBytes)
{
    const char* const refusals[] = {"FF FC 00", "FF FE 00"};
    for (const char* refusal : refusals) {
        Rfc2217Session other(PortSettings(), "plc:2000");
        other.begin();
        other.feed(hex("FF FD 2C") + hex(refusal), data);
        EXPECT_EQ(other.state(), State::Failed);
        EXPECT_EQ(other.error(),
                  QString("plc:2000 refuses to pass all bytes on unaltered (telnet's binary "
                          "transmission; set the server to raw TCP and use tcp://plc:2000, or use "
                          "another port)"));
    }
}

TEST_F(Rfc2217SessionTest, FailsWhenTheServerWithdrawsAnAgreement)
{
    makeReady();
    EXPECT_EQ(sentFor("FF FC 00"), hex("FF FE 00"));
    EXPECT_EQ(session.state(), State::Failed);
}

TEST_F(Rfc2217SessionTest, FailsWhenTheServerSetsSomethingElse)
{
    const std::vector<std::pair<const char*, const char*>> cases = {
        {"65 00 00 25 80",
         "plc:2000 sets 9600 baud instead of 38400 baud (choose what its port can do)"},
        {"65 00 00 00 00",
         "plc:2000 sets 0 baud instead of 38400 baud (choose what its port can do)"},
        {"66 07", "plc:2000 sets 7 data bits instead of 8 data bits (choose what its port can do)"},
        {"67 03", "plc:2000 sets even parity instead of no parity (choose what its port can do)"},
        {"67 09", "plc:2000 sets parity 9 instead of no parity (choose what its port can do)"},
        {"68 02", "plc:2000 sets stop bits of kind 2 instead of stop bits of kind 1 (choose what "
                  "its port can do)"}};
    for (const auto& [answer, text] : cases) {
        Rfc2217Session other(PortSettings(), "plc:2000");
        other.begin();
        other.feed(hex(kAllAgreed) + hex("FF FA 2C") + hex(answer) + hex("FF F0"), data);
        EXPECT_EQ(other.error().toStdString(), text);
        EXPECT_TRUE(other.refusesSettings());
    }
}

TEST_F(Rfc2217SessionTest, FailsWhenSomethingElseChangesTheSpeedLater)
{
    makeReady();
    sentFor("FF FA 2C 65 00 00 25 80 FF F0");
    EXPECT_EQ(error(),
              "plc:2000 sets 9600 baud instead of 38400 baud (choose what its port can do)");
    EXPECT_FALSE(session.refusesSettings());
    // The first reason stays.
    sentFor("FF FC 00");
    EXPECT_EQ(error().find("refuses to pass"), std::string::npos);
    sentFor("41");
    EXPECT_EQ(data, QByteArray());
}

TEST_F(Rfc2217SessionTest, IgnoresWhatTheServerTellsBeforeItWasAsked)
{
    sentFor("FF FA 2C 65 00 00 25 80 FF F0");
    makeReady();
}

TEST_F(Rfc2217SessionTest, IgnoresNoticesAndParametersOfTheWrongLength)
{
    makeReady();
    // The line's and the modem's state, a signature, another option, and cut-off answers.
    EXPECT_EQ(sentFor("FF FA 2C 6A 60 FF F0 FF FA 2C 6B B0 FF F0 FF FA 2C 64 41 42 FF F0 "
                      "FF FA 18 01 FF F0 FF FA 2C FF F0 FF FA 2C 65 00 00 25 FF F0 "
                      "FF FA 2C 66 FF F0 FF FA 2C 66 08 08 FF F0 FF FA 2C 6C FF F0 "
                      "FF FA 2C 6D FF F0"),
              QByteArray());
    EXPECT_EQ(session.state(), State::Ready);
    EXPECT_EQ(data, QByteArray());
}

TEST_F(Rfc2217SessionTest, KnowsWhetherTheServerWantsNoData)
{
    makeReady();
    EXPECT_FALSE(session.isSuspended());
    sentFor("FF FA 2C 6C FF F0");
    EXPECT_TRUE(session.isSuspended());
    sentFor("FF FA 2C 6D FF F0");
    EXPECT_FALSE(session.isSuspended());
}

TEST_F(Rfc2217SessionTest, TellsWhatIsMissing)
{
    EXPECT_EQ(session.missing(), QString("plc:2000 does not negotiate: it seems to speak no RFC "
                                         "2217 (use tcp://plc:2000)"));
    sentFor("FF FD 2C");
    EXPECT_EQ(
        session.missing(),
        QString("plc:2000 does not finish the negotiation of RFC 2217 "
                "(enable it at the server, or set the server to raw TCP and use tcp://plc:2000)"));
    sentFor("FF FD 00 FF FB 00");
    EXPECT_EQ(
        session.missing(),
        QString("plc:2000 does not confirm speed and format of its port "
                "(set them at the server; then set the server to raw TCP and use tcp://plc:2000)"));
}

TEST_F(Rfc2217SessionTest, ComesToTheSameResultHoweverTheBytesAreCut)
{
    QByteArray sent;
    for (const char byte : hex(kAllAgreed) + hex(kConfirmed) + hex("10 FF FF 03"))
        sent += sentFor(QByteArray(1, byte));
    EXPECT_EQ(session.state(), State::Ready);
    EXPECT_EQ(data, hex("10 FF 03"));
    Rfc2217Session whole(PortSettings(), "plc:2000");
    whole.begin();
    QByteArray wholeData;
    EXPECT_EQ(whole.feed(hex(kAllAgreed) + hex(kConfirmed), wholeData), sent);
}
