#ifndef MICRO850_HOST_RFC2217SESSION_H
#define MICRO850_HOST_RFC2217SESSION_H

#include "PortSettings.h"
#include "TelnetStream.h"

#include <array>

namespace micro850::host {

/// This host's side of RFC 2217, a telnet connection that also sets the serial port of the device
/// server. Without input and output: bytes go in, data and the bytes to send come out.
///
/// The session agrees on the transmission of all bytes and on the port's option, sets speed, data
/// bits, parity and stop bits, and is ready when the server has confirmed all of them. Then it only
/// carries data.
class Rfc2217Session : private TelnetStream::Receiver
{
public:
    enum class State { Negotiating, Ready, Failed };

    /// Messages call the server `place`.
    Rfc2217Session(const PortSettings& settings, const QString& place);
    Rfc2217Session(const Rfc2217Session&) = delete;
    Rfc2217Session& operator=(const Rfc2217Session&) = delete;

    /// The bytes that begin the session.
    QByteArray begin();
    /// Takes bytes of the server and appends the data in them to `data`. Returns the bytes to send:
    /// none, as a rule. Over a whole session they are limited, whatever the server sends.
    QByteArray feed(const QByteArray& bytes, QByteArray& data);
    /// Data as it must be sent.
    static QByteArray escaped(const QByteArray& data) { return TelnetStream::escaped(data); }

    State state() const { return m_state; }
    /// What the server did that the session cannot go on with.
    QString error() const { return m_error; }
    /// What the server has not done yet; for a session that does not become ready.
    QString missing() const;
    /// Whether the failure is one of speed or format; another speed may work.
    bool refusesSettings() const { return m_refusesSettings; }
    /// Whether the server wants no data for the moment.
    bool isSuspended() const { return m_suspended; }

private:
    /// One direction of an option: whether it is wanted here, and what was agreed.
    struct Side
    {
        bool wanted = false;
        bool asked = false;
        bool on = false;
        bool refused = false; ///< was told so once
    };
    struct Setting
    {
        quint8 command;
        quint32 value;
        int size;
        bool confirmed;
    };

    void handleData(const char* bytes, int count) override;
    void handleOffer(quint8 verb, quint8 option) override;
    void handleParameters(quint8 option, const QByteArray& parameters) override;
    void switchOn(Side& side, quint8 agreement, quint8 refusal, quint8 option);
    void switchOff(Side& side, quint8 agreement, quint8 option);
    void noteAgreement(quint8 option);
    void noteRefusal(quint8 option);
    void confirm(Setting& setting, quint32 value);
    void answer(const QByteArray& bytes);
    void becomeReadyWhenComplete();
    void fail(const QString& error);
    bool agreed() const;

    QString m_place;
    State m_state = State::Negotiating;
    QString m_error;
    TelnetStream m_stream{*this};
    std::array<Side, 256> m_here;
    std::array<Side, 256> m_there;
    std::array<Setting, 4> m_settings;
    QByteArray m_output;
    QByteArray* m_data = nullptr;
    int m_answers = 0;
    bool m_heard = false;
    bool m_settingsSent = false;
    bool m_refusesSettings = false;
    bool m_suspended = false;
};

} // namespace micro850::host

#endif
