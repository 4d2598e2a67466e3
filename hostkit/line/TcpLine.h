#ifndef MICRO850_HOST_TCPLINE_H
#define MICRO850_HOST_TCPLINE_H

#include "Line.h"
#include "PortSettings.h"
#include "TcpSocket.h"

namespace micro850::host {

/// The line behind a device server that passes the bytes on as they are. The server sets speed and
/// parity.
class TcpLine : public Line
{
public:
    TcpLine(const NetworkAddress& address, const PortSettings& settings);

    bool open(QString& error) override;
    void close() override;
    bool isOpen() const override { return m_socket.isOpen(); }
    void discardInput() override;
    bool send(const QByteArray& bytes) override;
    bool receive(QByteArray& bytes, Duration wait) override;
    void pause(Duration time) override;
    QString lossReason() const override;
    qint64 unaskedBytes() const override { return m_unasked; }
    Duration transportDelay() const override { return m_socket.roundTrip(); }

protected:
    enum class Start {
        Ready,
        Busy, ///< the server closed the connection at once; it may serve another client
        Failed
    };
    /// Makes a new connection ready. The reason in `error` unless it is.
    virtual Start start(QString& error);
    QString busyText() const;

    const NetworkAddress& address() const { return m_address; }
    const PortSettings& settings() const { return m_settings; }
    const Clock& clock() const { return m_clock; }
    TcpSocket& socket() { return m_socket; }
    const TcpSocket& socket() const { return m_socket; }

private:
    bool speaksTelnet(const QByteArray& bytes);
    void noteUnasked(const QByteArray& bytes);

    NetworkAddress m_address;
    PortSettings m_settings;
    SystemClock m_clock;
    TcpSocket m_socket;
    QByteArray m_firstBytes;
    bool m_telnet = false;
    bool m_asked = false;
    qint64 m_unasked = 0;
};

} // namespace micro850::host

#endif
