#ifndef MICRO850_HOST_RFC2217LINE_H
#define MICRO850_HOST_RFC2217LINE_H

#include "Rfc2217Session.h"
#include "TcpLine.h"

#include <optional>

namespace micro850::host {

/// The line behind a device server that speaks RFC 2217: this host sets its speed and format.
class Rfc2217Line : public TcpLine
{
public:
    using TcpLine::TcpLine;

    void discardInput() override;
    bool send(const QByteArray& bytes) override;
    bool receive(QByteArray& bytes, Duration wait) override;
    QString lossReason() const override;
    bool refusesSettings() const override { return m_session && m_session->refusesSettings(); }

protected:
    Start start(QString& error) override;

private:
    bool pass(const QByteArray& bytes, QByteArray& data);
    bool awaitPermission();

    std::optional<Rfc2217Session> m_session;
    QByteArray m_arrived; ///< data that came while the line waited for something else
    bool m_stuck = false;
};

} // namespace micro850::host

#endif
