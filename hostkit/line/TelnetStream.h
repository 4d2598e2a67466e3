#ifndef MICRO850_HOST_TELNETSTREAM_H
#define MICRO850_HOST_TELNETSTREAM_H

#include <QtCore/QByteArray>

namespace micro850::host {

/// Telnet's commands about options.
enum TelnetVerb : quint8 {
    kTelnetWill = 0xFB,
    kTelnetWont = 0xFC,
    kTelnetDo = 0xFD,
    kTelnetDont = 0xFE
};

/// Splits what a telnet peer sends into data, offers about options, and the parameters of options.
/// It keeps at most a few bytes, whatever comes, and the result is the same however the bytes are
/// cut into pieces.
class TelnetStream
{
public:
    class Receiver
    {
    public:
        virtual ~Receiver() = default;
        virtual void handleData(const char* bytes, int count) = 0;
        virtual void handleOffer(quint8 verb, quint8 option) = 0;
        /// Not called for parameters of more than kMostParameters bytes.
        virtual void handleParameters(quint8 option, const QByteArray& parameters) = 0;
    };
    static constexpr int kMostParameters = 64;

    /// The receiver must live longer than this object.
    explicit TelnetStream(Receiver& receiver) : m_receiver(receiver) {}

    void feed(const QByteArray& bytes);

    /// Data as it goes out: byte FF is doubled.
    static QByteArray escaped(const QByteArray& data);
    static QByteArray offer(quint8 verb, quint8 option);
    static QByteArray parameters(quint8 option, const QByteArray& parameters);

private:
    enum class State { Data, Command, Offer, Option, Parameters, ParametersCommand };
    void handleByte(char byte);
    void handleCommand(quint8 command);
    void keepParameter(char byte);

    Receiver& m_receiver;
    State m_state = State::Data;
    quint8 m_verb = 0;
    quint8 m_option = 0;
    QByteArray m_parameters;
    bool m_tooLong = false;
};

} // namespace micro850::host

#endif
