#ifndef MICRO850_GATEWAY_DELIVERY_BROKERSECURITY_H
#define MICRO850_GATEWAY_DELIVERY_BROKERSECURITY_H

#include "DeliverySettings.h"

#include <memory>
#include <string>

struct ssl_ctx_st;
struct ssl_st;

namespace micro850::gateway {

/// Who the gateway is for a broker.
struct BrokerCredentials
{
    std::string user;
    std::string password;
};

/// No dump of the memory of this process is made, and other processes of its user cannot read it.
void keepMemoryPrivate();

/// Reads a file with "user" and "password". Throws UserError when it cannot be read, and when
/// group or others may read it. No message has any of its content.
BrokerCredentials readCredentials(const QString& path);

/// How connections to a broker are encrypted: at least TLS 1.2, the broker's certificate is checked
/// against the authorities, the revoked ones and the name of the host.
class BrokerSecurity
{
public:
    /// Reads the files of the address. Throws UserError, which names the file and the key.
    explicit BrokerSecurity(const BrokerAddress& address);
    ~BrokerSecurity();
    BrokerSecurity(const BrokerSecurity&) = delete;
    BrokerSecurity& operator=(const BrokerSecurity&) = delete;

    ssl_ctx_st* context() const { return m_context; }
    /// Why a handshake, or the connection after it, failed, for people; `result` is what
    /// SSL_connect or another function returned. Takes the errors of this thread from the library's
    /// queue.
    QString reason(ssl_st* connection, int result) const;

private:
    void trust(const BrokerAddress& address);
    void identify(const BrokerAddress& address);
    void revoke(const BrokerAddress& address);
    void expectHost(const BrokerAddress& address);
    QString verificationReason(long result) const;

    BrokerAddress m_address;
    ssl_ctx_st* m_context;
};

} // namespace micro850::gateway

#endif
