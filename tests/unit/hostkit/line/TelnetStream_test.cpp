#include "TelnetStream.h"

#include "wire.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>

using micro850::host::TelnetStream;
using wire::hex;

namespace {

// What a stream delivers, as text: "data 41 42", "offer FB 2C", "parameters 2C: 65 00". Adjacent
// data is one, because pieces may be cut anywhere.
class Listener : public TelnetStream::Receiver
{
public:
    void handleData(const char* bytes, int count) override { m_data.append(bytes, count); }
    void handleOffer(quint8 verb, quint8 option) override
    {
        add("offer " + wire::text(QByteArray(1, char(verb)).append(char(option))));
    }
    void handleParameters(quint8 option, const QByteArray& parameters) override
    {
        add("parameters " + wire::text(QByteArray(1, char(option))) + ": " +
            wire::text(parameters));
    }
    std::vector<std::string> heard()
    {
        endData();
        return m_heard;
    }

private:
    void endData()
    {
        if (!m_data.isEmpty())
            m_heard.push_back("data " + wire::text(m_data));
        m_data.clear();
    }
    void add(const std::string& what)
    {
        endData();
        m_heard.push_back(what);
    }

    std::vector<std::string> m_heard;
    QByteArray m_data;
};

using Heard = std::vector<std::string>;

Heard heardOf(const QByteArray& bytes)
{
    Listener listener;
    TelnetStream stream(listener);
    stream.feed(bytes);
    return listener.heard();
}

Heard heardBytewise(const QByteArray& bytes)
{
    Listener listener;
    TelnetStream stream(listener);
    for (const char byte : bytes)
        stream.feed(QByteArray(1, byte));
    return listener.heard();
}

} // namespace

TEST(TelnetStream, PassesDataOnUnaltered)
{
    EXPECT_EQ(heardOf(hex("10 02 00 0D 00 0D 0A FE FA 03")),
              Heard{"data 10 02 00 0D 00 0D 0A FE FA 03"});
    EXPECT_EQ(heardOf(QByteArray()), Heard());
}

TEST(TelnetStream, TakesADoubledByteFfForOne)
{
    EXPECT_EQ(heardOf(hex("FF FF")), Heard{"data FF"});
    EXPECT_EQ(heardOf(hex("41 FF FF FF FF 42")), Heard{"data 41 FF FF 42"});
}

TEST(TelnetStream, FindsOffersBetweenData)
{
    EXPECT_EQ(
        heardOf(hex("41 FF FB 2C FF FC 00 FF FD FF FF FE 03 42")),
        (Heard{"data 41", "offer FB 2C", "offer FC 00", "offer FD FF", "offer FE 03", "data 42"}));
}

TEST(TelnetStream, DropsCommandsThatItDoesNotKnow)
{
    EXPECT_EQ(heardOf(hex("41 FF F1 FF F9 FF F0 FF EF FF 00 42")), Heard{"data 41 42"});
}

TEST(TelnetStream, FindsTheParametersOfOptions)
{
    EXPECT_EQ(heardOf(hex("FF FA 2C 65 00 00 96 00 FF F0 41")),
              (Heard{"parameters 2C: 65 00 00 96 00", "data 41"}));
    EXPECT_EQ(heardOf(hex("FF FA 2C FF F0")), Heard{"parameters 2C: "});
    // A doubled FF is one, also as the option itself would be.
    EXPECT_EQ(heardOf(hex("FF FA 2C 6A FF FF FF F0")), Heard{"parameters 2C: 6A FF"});
}

TEST(TelnetStream, TakesAnotherCommandForTheEndOfParameters)
{
    EXPECT_EQ(heardOf(hex("FF FA 2C 65 00 FF FB 00 41")), (Heard{"offer FB 00", "data 41"}));
    EXPECT_EQ(heardOf(hex("FF FA 2C 65 FF FA 2C 66 08 FF F0")), Heard{"parameters 2C: 66 08"});
}

TEST(TelnetStream, DropsParametersThatAreTooLong)
{
    const int most = TelnetStream::kMostParameters;
    const QByteArray begin = hex("FF FA 2C");
    const QByteArray end = hex("FF F0 41");
    EXPECT_EQ(heardOf(begin + QByteArray(most, 'x') + end).size(), 2U);
    EXPECT_EQ(heardOf(begin + QByteArray(most + 1, 'x') + end), Heard{"data 41"});
    EXPECT_EQ(heardOf(begin + QByteArray(5000000, 'x') + end), Heard{"data 41"});
    // The next ones are heard again.
    EXPECT_EQ(heardOf(begin + QByteArray(most + 1, 'x') + hex("FF F0") + hex("FF FA 2C 01 FF F0")),
              Heard{"parameters 2C: 01"});
}

TEST(TelnetStream, DeliversTheSameHoweverTheBytesAreCut)
{
    EXPECT_TRUE(rc::check([] {
        // Bytes that mean something are frequent.
        const auto byte = rc::gen::weightedOneOf<int>({{3, rc::gen::just(0xFF)},
                                                       {3, rc::gen::inRange(0xF0, 0x100)},
                                                       {1, rc::gen::inRange(0, 0x100)}});
        QByteArray bytes;
        for (const int value : *rc::gen::container<std::vector<int>>(byte))
            bytes.append(char(value));
        RC_ASSERT(heardOf(bytes) == heardBytewise(bytes));
    }));
}

TEST(TelnetStream, EscapesDataSoThatItArrivesAsItWas)
{
    EXPECT_TRUE(rc::check([] {
        const auto byte = rc::gen::weightedOneOf<int>(
            {{1, rc::gen::just(0xFF)}, {1, rc::gen::inRange(0, 0x100)}});
        QByteArray data;
        for (const int value : *rc::gen::container<std::vector<int>>(byte))
            data.append(char(value));
        const QByteArray sent = TelnetStream::escaped(data);
        RC_ASSERT(sent.size() == data.size() + data.count('\xFF'));
        RC_ASSERT(heardOf(sent) == (data.isEmpty() ? Heard() : Heard{"data " + wire::text(data)}));
    }));
}

TEST(TelnetStream, WritesOffersAndParameters)
{
    EXPECT_EQ(TelnetStream::offer(0xFB, 44), hex("FF FB 2C"));
    EXPECT_EQ(TelnetStream::parameters(44, hex("01 00 00 FF 00")),
              hex("FF FA 2C 01 00 00 FF FF 00 FF F0"));
}
