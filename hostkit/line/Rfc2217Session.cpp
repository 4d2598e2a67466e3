#include "Rfc2217Session.h"

#include <algorithm>

namespace micro850::host {

namespace {

// Options.
const quint8 kBinary = 0;
const quint8 kSuppressGoAhead = 3;
const quint8 kComPort = 44;

// Commands of the port's option. The server's have another number, by 100 higher.
const quint8 kSetBaudRate = 1;
const quint8 kSetDataSize = 2;
const quint8 kSetParity = 3;
const quint8 kSetStopSize = 4;
const quint8 kSetControl = 5;
const quint8 kSetLineStateMask = 10;
const quint8 kSetModemStateMask = 11;
const quint8 kPurgeData = 12;
const quint8 kServer = 100;
const quint8 kServerSuspends = 108;
const quint8 kServerResumes = 109;

// Values of kSetControl and kPurgeData.
const char kNoFlowControl = 1;
const char kDtrOn = 8;
const char kRtsOn = 11;
const char kNoInboundFlowControl = 14;
const char kPurgeBoth = 3;

// A server needs some ten answers. One that changes its mind for ever gets no more than these.
const int kMostAnswers = 100;

quint32 parityValue(Parity parity)
{
    return parity == Parity::None ? 1 : parity == Parity::Odd ? 2 : 3;
}

QByteArray bigEndian(quint32 value, int size)
{
    QByteArray bytes;
    for (int shift = 8 * (size - 1); shift >= 0; shift -= 8)
        bytes.append(static_cast<char>(value >> shift));
    return bytes;
}

quint32 numberOf(const QByteArray& bytes)
{
    quint32 value = 0;
    for (const char byte : bytes)
        value = value << 8 | static_cast<quint8>(byte);
    return value;
}

QByteArray portCommand(quint8 command, const QByteArray& value)
{
    return TelnetStream::parameters(kComPort, QByteArray(1, static_cast<char>(command)) + value);
}

QString rawRemedy(const QString& place)
{
    return QStringLiteral("set the server to raw TCP and use tcp://") + place;
}

QString settingText(quint8 command, quint32 value)
{
    switch (command) {
    case kSetBaudRate:
        return QStringLiteral("%1 baud").arg(value);
    case kSetDataSize:
        return QStringLiteral("%1 data bits").arg(value);
    case kSetParity: {
        static const char* const names[] = {"no", "odd", "even", "mark", "space"};
        return value >= 1 && value <= 5 ? QStringLiteral("%1 parity").arg(names[value - 1])
                                        : QStringLiteral("parity %1").arg(value);
    }
    default:
        return QStringLiteral("stop bits of kind %1").arg(value);
    }
}

} // namespace

Rfc2217Session::Rfc2217Session(const PortSettings& settings, const QString& place)
    : m_place(place), m_settings{
                          {{kSetBaudRate, static_cast<quint32>(settings.baud), 4, false},
                           {kSetDataSize, static_cast<quint32>(settings.dataBits), 1, false},
                           {kSetParity, parityValue(settings.parity), 1, false},
                           {kSetStopSize, static_cast<quint32>(settings.stopBits), 1, false}}}
{
    for (const quint8 option : {kBinary, kSuppressGoAhead, kComPort}) {
        m_here[option].wanted = true;
        m_there[option].wanted = true;
    }
}

QByteArray Rfc2217Session::begin()
{
    QByteArray bytes;
    for (const quint8 option : {kComPort, kBinary, kSuppressGoAhead}) {
        m_here[option].asked = true;
        bytes += TelnetStream::offer(kTelnetWill, option);
    }
    for (const quint8 option : {kBinary, kSuppressGoAhead}) {
        m_there[option].asked = true;
        bytes += TelnetStream::offer(kTelnetDo, option);
    }
    return bytes;
}

QByteArray Rfc2217Session::feed(const QByteArray& bytes, QByteArray& data)
{
    m_output.clear();
    m_data = &data;
    m_stream.feed(bytes);
    m_data = nullptr;
    return m_output;
}

// Before all is agreed, the server may alter bytes, and the port has another speed.
void Rfc2217Session::handleData(const char* bytes, int count)
{
    if (m_state == State::Ready)
        m_data->append(bytes, count);
}

void Rfc2217Session::handleOffer(quint8 verb, quint8 option)
{
    m_heard = true;
    switch (verb) {
    case kTelnetWill:
        switchOn(m_there[option], kTelnetDo, kTelnetDont, option);
        break;
    case kTelnetWont:
        switchOff(m_there[option], kTelnetDont, option);
        break;
    case kTelnetDo:
        switchOn(m_here[option], kTelnetWill, kTelnetWont, option);
        break;
    default:
        switchOff(m_here[option], kTelnetWont, option);
        break;
    }
}

// An answer only where something changes: two ends that answered every answer would never stop.
void Rfc2217Session::switchOn(Side& side, quint8 agreement, quint8 refusal, quint8 option)
{
    if (side.on || side.refused)
        return;
    if (!side.wanted) {
        side.refused = true;
        answer(TelnetStream::offer(refusal, option));
        return;
    }
    side.on = true;
    if (!side.asked)
        answer(TelnetStream::offer(agreement, option));
    side.asked = false;
    noteAgreement(option);
}

void Rfc2217Session::switchOff(Side& side, quint8 agreement, quint8 option)
{
    if (!side.on && !side.asked)
        return;
    if (side.on)
        answer(TelnetStream::offer(agreement, option));
    side.on = false;
    side.asked = false;
    noteRefusal(option);
}

void Rfc2217Session::noteAgreement(quint8 option)
{
    if (option == kComPort && m_here[kComPort].on && !m_settingsSent) {
        m_settingsSent = true;
        for (const Setting& setting : m_settings)
            answer(portCommand(setting.command, bigEndian(setting.value, setting.size)));
        for (const char control : {kNoFlowControl, kNoInboundFlowControl, kDtrOn, kRtsOn})
            answer(portCommand(kSetControl, QByteArray(1, control)));
        answer(portCommand(kSetLineStateMask, QByteArray(1, '\0')));
        answer(portCommand(kSetModemStateMask, QByteArray(1, '\0')));
        answer(portCommand(kPurgeData, QByteArray(1, kPurgeBoth)));
    }
    becomeReadyWhenComplete();
}

void Rfc2217Session::noteRefusal(quint8 option)
{
    if (option == kComPort && !m_here[kComPort].on)
        fail(QStringLiteral("%1 speaks telnet, but no RFC 2217 (enable it at the server, or %2)")
                 .arg(m_place, rawRemedy(m_place)));
    if (option == kBinary)
        fail(QStringLiteral("%1 refuses to pass all bytes on unaltered (telnet's binary "
                            "transmission; %2, or use another port)")
                 .arg(m_place, rawRemedy(m_place)));
}

void Rfc2217Session::handleParameters(quint8 option, const QByteArray& parameters)
{
    if (option != kComPort || parameters.isEmpty())
        return;
    const auto command = static_cast<quint8>(parameters.at(0));
    if (command == kServerSuspends || command == kServerResumes) {
        m_suspended = command == kServerSuspends;
        return;
    }
    for (Setting& setting : m_settings) {
        const QByteArray value = parameters.mid(1);
        if (command == setting.command + kServer && value.size() == setting.size)
            confirm(setting, numberOf(value));
    }
}

// The server tells the value that its port has now: as an answer, or after something else has
// changed it.
void Rfc2217Session::confirm(Setting& setting, quint32 value)
{
    if (!m_settingsSent)
        return;
    if (value != setting.value) {
        m_refusesSettings = m_refusesSettings || m_state == State::Negotiating;
        fail(QStringLiteral("%1 sets %2 instead of %3 (choose what its port can do)")
                 .arg(m_place, settingText(setting.command, value),
                      settingText(setting.command, setting.value)));
        return;
    }
    setting.confirmed = true;
    becomeReadyWhenComplete();
}

bool Rfc2217Session::agreed() const
{
    return m_here[kComPort].on && m_here[kBinary].on && m_there[kBinary].on;
}

void Rfc2217Session::becomeReadyWhenComplete()
{
    const bool confirmed = std::all_of(m_settings.begin(), m_settings.end(),
                                       [](const Setting& setting) { return setting.confirmed; });
    if (m_state == State::Negotiating && agreed() && confirmed)
        m_state = State::Ready;
}

QString Rfc2217Session::missing() const
{
    if (!m_heard)
        return QStringLiteral("%1 does not negotiate: it seems to speak no RFC 2217 (use tcp://%1)")
            .arg(m_place);
    if (!agreed())
        return QStringLiteral("%1 does not finish the negotiation of RFC 2217 (enable it at the "
                              "server, or %2)")
            .arg(m_place, rawRemedy(m_place));
    return QStringLiteral("%1 does not confirm speed and format of its port (set them at the "
                          "server; then %2)")
        .arg(m_place, rawRemedy(m_place));
}

void Rfc2217Session::answer(const QByteArray& bytes)
{
    if (++m_answers <= kMostAnswers)
        m_output += bytes;
    else
        fail(QStringLiteral("%1 negotiates without end (%2, or use another port)")
                 .arg(m_place, rawRemedy(m_place)));
}

void Rfc2217Session::fail(const QString& error)
{
    if (m_state == State::Failed)
        return;
    m_state = State::Failed;
    m_error = error;
}

} // namespace micro850::host
