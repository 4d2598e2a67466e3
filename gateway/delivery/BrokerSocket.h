#ifndef MICRO850_GATEWAY_DELIVERY_BROKERSOCKET_H
#define MICRO850_GATEWAY_DELIVERY_BROKERSOCKET_H

#include "BrokerSecurity.h"
#include "Clock.h"

#include <QtCore/QByteArray>

#include <chrono>
#include <memory>

struct addrinfo;

namespace micro850::gateway {

/// A TCP connection to a broker, encrypted if its address says so. Only its constructor and
/// connect() block; it belongs to a thread of its own.
class BrokerSocket
{
public:
    /// `patience` is for each address of the host, and for the encryption. What blocks ends early
    /// when the descriptor `wake` becomes readable, but for the look-up of the host's name.
    BrokerSocket(const BrokerAddress& address, Duration patience, int wake);
    ~BrokerSocket();
    BrokerSocket(const BrokerSocket&) = delete;
    BrokerSocket& operator=(const BrokerSocket&) = delete;

    /// Throws UserError with one line for people.
    void connect();

    /// Appends what has come, a bounded number of bytes. False when the connection is over;
    /// reason() says why.
    bool read(QByteArray& bytes);
    /// Sends from the front and removes what was sent. False when the connection is over.
    bool write(QByteArray& bytes);
    const QString& reason() const { return m_reason; }

    int descriptor() const { return m_socket; }
    /// Bytes have come that poll() does not show.
    bool hasMore() const;
    /// Reading waits until the socket can be written to.
    bool wantsToWrite() const { return m_wantsToWrite; }

    /// Ends what is sent, so that the broker reads all of it, and waits until it closes the
    /// connection, for at most so long.
    void finish(std::chrono::milliseconds limit);

private:
    using Deadline = std::chrono::steady_clock::time_point;
    void connectTo(const addrinfo& address);
    void shakeHands();
    void awaitVerdict();
    void await(short events, Deadline deadline);
    bool handleResult(int result);
    QString endText(int error) const;
    void close();

    BrokerAddress m_address;
    Duration m_patience;
    int m_wake;
    int m_socket = -1;
    std::unique_ptr<BrokerSecurity> m_security;
    ssl_st* m_tls = nullptr;
    bool m_wantsToWrite = false;
    bool m_hasAnswered = false; ///< without TLS
    QString m_reason;
};

} // namespace micro850::gateway

#endif
