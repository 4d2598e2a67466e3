// What a device server sends while it negotiates and later, and addresses of such servers: any
// bytes. The session ends up in the same state however they are cut, it sends a limited number of
// complete commands and nothing else, and data comes through as it was.

#include "NetworkAddress.h"
#include "Rfc2217Session.h"
#include "complaint.h"
#include "fuzz_input.h"

#include <cstddef>
#include <cstdint>

namespace {

using namespace micro850::host;

// A hundred answers of at most 14 bytes: a speed with each byte doubled, and six bytes around it.
const int kMostSent = 100 * 15;

const char kIac = '\xFF';

// The answers of a server that agrees to everything.
QByteArray agreement()
{
    return QByteArray::fromHex("fffd2cfffd00fffb00"
                               "fffa2c6500009600fff0fffa2c6608fff0fffa2c6701fff0fffa2c6801fff0");
}

// A session and everything that came out of it.
struct Ran
{
    Rfc2217Session session{PortSettings(), QStringLiteral("plc:2000")};
    QByteArray data;
    QByteArray sent;

    void feed(const QByteArray& bytes) { sent += session.feed(bytes, data); }
};

// Feeds the bytes in pieces of the lengths that `cuts` gives, again and again; at least one byte.
void feedInPieces(Ran& ran, const QByteArray& bytes, const QByteArray& cuts)
{
    int piece = 0;
    for (int at = 0; at < bytes.size();) {
        const int given = cuts.isEmpty() ? 1 : static_cast<quint8>(cuts.at(piece++ % cuts.size()));
        const int size = given == 0 ? 1 : given;
        ran.feed(bytes.mid(at, size));
        at += size;
    }
}

// Offers of three bytes, and parameters between IAC SB 2C and IAC SE.
void checkCommands(const QByteArray& sent)
{
    FUZZ_CHECK(sent.size() <= kMostSent);
    for (int at = 0; at < sent.size();) {
        FUZZ_CHECK(sent.size() >= at + 3 && sent.at(at) == kIac);
        const auto verb = static_cast<quint8>(sent.at(at + 1));
        FUZZ_CHECK(verb >= 0xFA && verb <= 0xFE);
        at += 3;
        if (verb != 0xFA)
            continue;
        FUZZ_CHECK(sent.at(at - 1) == 44);
        const int end = sent.indexOf(QByteArray::fromHex("fff0"), at);
        FUZZ_CHECK(end > at && end - at <= 9);
        at = end + 2;
    }
}

void checkStream(FuzzInput& input)
{
    const bool begins = input.flag();
    const bool ready = input.flag();
    const QByteArray cuts = input.block();
    const QByteArray bytes = input.bytes(SIZE_MAX);
    Ran whole;
    Ran pieces;
    for (Ran* ran : {&whole, &pieces}) {
        if (begins)
            ran->sent = ran->session.begin();
        if (ready)
            ran->feed(agreement());
        FUZZ_CHECK(!ready || ran->session.state() == Rfc2217Session::State::Ready);
    }
    whole.feed(bytes);
    feedInPieces(pieces, bytes, cuts);
    FUZZ_CHECK(whole.data == pieces.data && whole.sent == pieces.sent);
    FUZZ_CHECK(whole.session.state() == pieces.session.state());
    FUZZ_CHECK(whole.session.isSuspended() == pieces.session.isSuspended());
    FUZZ_CHECK(whole.session.error() == pieces.session.error());
    FUZZ_CHECK(whole.session.error().isEmpty() ==
               (whole.session.state() != Rfc2217Session::State::Failed));
    FUZZ_CHECK(whole.data.size() <= bytes.size());
    checkCommands(whole.sent);
    fuzz::checkShownText(whole.session.error().toStdString());
    fuzz::checkShownText(whole.session.missing().toStdString());
}

void checkData(FuzzInput& input)
{
    const QByteArray cuts = input.block();
    const QByteArray data = input.bytes(SIZE_MAX);
    Ran ran;
    ran.session.begin();
    ran.feed(agreement());
    ran.sent.clear();
    feedInPieces(ran, Rfc2217Session::escaped(data), cuts);
    FUZZ_CHECK(ran.data == data);
    FUZZ_CHECK(ran.sent.isEmpty());
    FUZZ_CHECK(ran.session.state() == Rfc2217Session::State::Ready);
}

// What is accepted has one meaning: written anew, it is the same address.
void checkAddress(FuzzInput& input)
{
    const QString device = QString::fromUtf8(input.bytes(SIZE_MAX));
    if (!isNetworkAddress(device))
        return;
    try {
        const NetworkAddress address = networkAddress(device);
        FUZZ_CHECK(address.port >= 1 && address.port <= 65535);
        FUZZ_CHECK(!address.host.isEmpty() && address.host.size() <= 253);
        const bool raw = address.protocol == NetworkAddress::Protocol::Raw;
        const NetworkAddress again =
            networkAddress(QLatin1String(raw ? "tcp://" : "rfc2217://") + address.text());
        FUZZ_CHECK(again.protocol == address.protocol && again.host == address.host &&
                   again.port == address.port);
    } catch (const micro850::UserError& error) {
        fuzz::checkComplaint(error, "\"");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    FuzzInput input(bytes, size);
    switch (input.below(3)) {
    case 0:
        checkStream(input);
        break;
    case 1:
        checkData(input);
        break;
    default:
        checkAddress(input);
        break;
    }
    return 0;
}
