#include "BrokerSecurity.h"

#include "JsonFile.h"
#include "UserError.h"
#include "VisibleText.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace micro850::gateway {

namespace {

std::string lastError()
{
    const unsigned long error = ERR_peek_last_error();
    ERR_clear_error();
    if (ERR_SYSTEM_ERROR(error))
        return std::strerror(ERR_GET_REASON(error));
    const char* reason = ERR_reason_error_string(error);
    return reason != nullptr ? reason : "unknown error";
}

[[noreturn]] void refuseFile(const QString& path, const std::string& what)
{
    throw UserError(path.toStdString() + ": " + what + ": " + lastError());
}

// Without it the library would ask for the pass phrase of a key on the terminal.
int noPassPhrase(char* /*buffer*/, int /*size*/, int /*isWriting*/, void* /*data*/)
{
    return 0;
}

// A list of revoked certificates that speaks for the broker's own certificate is enough.
int verify(int isGood, X509_STORE_CTX* store)
{
    if (isGood == 0 && X509_STORE_CTX_get_error(store) == X509_V_ERR_UNABLE_TO_GET_CRL &&
        X509_STORE_CTX_get_error_depth(store) > 0)
    {
        X509_STORE_CTX_set_error(store, X509_V_OK);
        return 1;
    }
    return isGood;
}

// Files with secrets must not be readable by others than `mask` leaves.
void expectPrivate(const QString& path, mode_t mask, const char* who)
{
    struct stat status = {};
    if (::stat(path.toLocal8Bit().constData(), &status) != 0)
        throw UserError(path.toStdString() + ": " + std::strerror(errno));
    if ((status.st_mode & mask) != 0)
        throw UserError(path.toStdString() + ": " + who + " may read it: chmod " +
                        ((mask & S_IRGRP) != 0 ? "600" : "o=") + " makes it private");
}

// What a broker, or this side, says when a handshake fails.
QString handshakeReason(unsigned long error)
{
    switch (ERR_GET_REASON(error)) {
    case SSL_R_WRONG_VERSION_NUMBER:
    case SSL_R_HTTP_REQUEST:
        return QStringLiteral("the broker does not speak TLS on this port");
    case SSL_R_UNSUPPORTED_PROTOCOL:
    case SSL_R_TLSV1_ALERT_PROTOCOL_VERSION:
        return QStringLiteral("the broker does not offer TLS 1.2 or later");
    case SSL_R_TLSV13_ALERT_CERTIFICATE_REQUIRED:
        return QStringLiteral("the broker wants a certificate of this client: "
                              "set \"certificate\" and \"key\"");
    case SSL_R_SSLV3_ALERT_CERTIFICATE_EXPIRED:
        return QStringLiteral("the broker refuses the certificate of this client: it has expired");
    case SSL_R_SSLV3_ALERT_CERTIFICATE_REVOKED:
        return QStringLiteral("the broker refuses the certificate of this client: it is revoked");
    case SSL_R_TLSV1_ALERT_UNKNOWN_CA:
    case SSL_R_SSLV3_ALERT_BAD_CERTIFICATE:
    case SSL_R_SSLV3_ALERT_UNSUPPORTED_CERTIFICATE:
    case SSL_R_SSLV3_ALERT_CERTIFICATE_UNKNOWN:
    case SSL_R_TLSV1_ALERT_ACCESS_DENIED:
        return QStringLiteral("the broker refuses the certificate of this client (%1)")
            .arg(QString::fromLatin1(ERR_reason_error_string(error)));
    default:
        return {};
    }
}

} // namespace

BrokerCredentials readCredentials(const QString& path)
{
    expectPrivate(path, S_IRWXG | S_IRWXO, "group or others");
    const std::string content = fileContent(path.toStdString());
    BrokerCredentials credentials;
    try {
        const JsonNode file = JsonNode::fromText(content, path.toStdString());
        file.expectKeys({"user", "password"});
        credentials.user = file.at("user").text();
        credentials.password = file.text("password", "");
    } catch (const UserError&) {
        // That message may show what the file has.
        throw UserError(path.toStdString() +
                        R"(: it must be {"user": "NAME", "password": "WORD"}, as JSON)");
    }
    if (credentials.user.find('\0') != std::string::npos ||
        credentials.password.find('\0') != std::string::npos)
        throw UserError(path.toStdString() + ": a byte 00 is not allowed");
    return credentials;
}

BrokerSecurity::BrokerSecurity(const BrokerAddress& address)
    : m_address(address), m_context(SSL_CTX_new(TLS_client_method()))
{
    if (m_context == nullptr)
        throw UserError("TLS: " + lastError(), kExitRefused);
    try {
        SSL_CTX_set_min_proto_version(m_context, TLS1_2_VERSION);
        SSL_CTX_set_verify(m_context, SSL_VERIFY_PEER, verify);
        SSL_CTX_set_default_passwd_cb(m_context, noPassPhrase);
        SSL_CTX_set_mode(m_context,
                         SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
        trust(address);
        identify(address);
        revoke(address);
        expectHost(address);
    } catch (const UserError&) {
        SSL_CTX_free(m_context);
        throw;
    }
}

BrokerSecurity::~BrokerSecurity()
{
    SSL_CTX_free(m_context);
}

void BrokerSecurity::trust(const BrokerAddress& address)
{
    const QByteArray file = address.authoritiesFile.toLocal8Bit();
    if (file.isEmpty())
        SSL_CTX_set_default_verify_paths(m_context);
    else if (SSL_CTX_load_verify_locations(m_context, file.constData(), nullptr) != 1)
        refuseFile(address.authoritiesFile, "no certificates of authorities (PEM)");
}

void BrokerSecurity::identify(const BrokerAddress& address)
{
    if (address.certificateFile.isEmpty())
        return;
    if (SSL_CTX_use_certificate_chain_file(m_context,
                                           address.certificateFile.toLocal8Bit().constData()) != 1)
        refuseFile(address.certificateFile, "no certificate (PEM)");
    expectPrivate(address.keyFile, S_IRWXO, "others");
    if (SSL_CTX_use_PrivateKey_file(m_context, address.keyFile.toLocal8Bit().constData(),
                                    SSL_FILETYPE_PEM) != 1)
        refuseFile(address.keyFile, "no key of " + address.certificateFile.toStdString() +
                                        " (PEM, without a pass phrase)");
    if (SSL_CTX_check_private_key(m_context) != 1)
        refuseFile(address.keyFile,
                   "it is not the key of " + address.certificateFile.toStdString());
}

void BrokerSecurity::revoke(const BrokerAddress& address)
{
    if (address.revokedFile.isEmpty())
        return;
    X509_STORE* store = SSL_CTX_get_cert_store(m_context);
    X509_LOOKUP* lookup = X509_STORE_add_lookup(store, X509_LOOKUP_file());
    if (lookup == nullptr ||
        X509_load_crl_file(lookup, address.revokedFile.toLocal8Bit().constData(),
                           X509_FILETYPE_PEM) < 1)
        refuseFile(address.revokedFile, "no list of revoked certificates (PEM)");
    X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
}

void BrokerSecurity::expectHost(const BrokerAddress& address)
{
    X509_VERIFY_PARAM* parameters = SSL_CTX_get0_param(m_context);
    const QByteArray host = address.host.toUtf8();
    if (X509_VERIFY_PARAM_set1_ip_asc(parameters, host.constData()) == 1)
        return;
    ERR_clear_error();
    X509_VERIFY_PARAM_set_hostflags(parameters, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    if (X509_VERIFY_PARAM_set1_host(parameters, host.constData(), 0) != 1)
        throw UserError("TLS: " + inQuotes(host.toStdString()) +
                        " is no name of a host: " + lastError());
}

QString BrokerSecurity::verificationReason(long result) const
{
    const QString authorities = m_address.authoritiesFile.isEmpty()
                                    ? QStringLiteral("the authorities of this system")
                                    : m_address.authoritiesFile;
    switch (result) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
        return QStringLiteral("it has expired");
    case X509_V_ERR_CERT_NOT_YET_VALID:
        return QStringLiteral("it is not valid yet: is the clock of this machine right?");
    case X509_V_ERR_CERT_REVOKED:
        return QStringLiteral("it is revoked");
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
        return QStringLiteral("it is not for %1").arg(m_address.host);
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
        return QStringLiteral("it is self-signed, and not among %1").arg(authorities);
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_CERT_SIGNATURE_FAILURE:
        return QStringLiteral("none of %1 has signed it").arg(authorities);
    case X509_V_ERR_UNABLE_TO_GET_CRL:
        return QStringLiteral("%1 has no list of its authority").arg(m_address.revokedFile);
    case X509_V_ERR_CRL_HAS_EXPIRED:
        return QStringLiteral("the list of revoked certificates in %1 has expired")
            .arg(m_address.revokedFile);
    default:
        return QString::fromLatin1(X509_verify_cert_error_string(result));
    }
}

QString BrokerSecurity::reason(ssl_st* connection, int result) const
{
    const int error = errno;
    const int kind = SSL_get_error(connection, result);
    const unsigned long queued = ERR_peek_error();
    ERR_clear_error();
    const long verification = SSL_get_verify_result(connection);
    if (SSL_is_init_finished(connection) == 0 && verification != X509_V_OK)
        return QStringLiteral("TLS: the certificate of the broker is refused: %1")
            .arg(verificationReason(verification));
    if (kind == SSL_ERROR_SSL) {
        const QString known = handshakeReason(queued);
        const char* text = ERR_reason_error_string(queued);
        return QStringLiteral("TLS: %1").arg(
            known.isEmpty() ? QString::fromLatin1(text != nullptr ? text : "unknown error")
                            : known);
    }
    if (kind == SSL_ERROR_SYSCALL && error != 0)
        return QString::fromLocal8Bit(std::strerror(error));
    return QStringLiteral("the broker closed the connection");
}

} // namespace micro850::gateway
