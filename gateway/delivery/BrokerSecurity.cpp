#include "BrokerSecurity.h"

#include "JsonFile.h"
#include "UserError.h"
#include "VisibleText.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

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

// Most of the library's words, such as "PEM lib", help nobody.
std::string weakness()
{
    const unsigned long error = ERR_peek_last_error();
    ERR_clear_error();
    switch (ERR_GET_REASON(error)) {
    case SSL_R_EE_KEY_TOO_SMALL:
    case SSL_R_CA_KEY_TOO_SMALL:
    case SSL_R_CA_MD_TOO_WEAK:
        return ERR_GET_LIB(error) == ERR_LIB_SSL
                   ? std::string(": ") + ERR_reason_error_string(error)
                   : "";
    default:
        return "";
    }
}

/// A file of one key in "tls".
struct TlsFile
{
    const char* key;
    QString path;

    [[noreturn]] void refuse(const std::string& what) const
    {
        throw UserError(std::string("tls.") + key + ": " + path.toStdString() + ": " + what);
    }
    // The library does not tell a file that is missing from one with other content.
    void expectReadable() const
    {
        const int file = ::open(path.toLocal8Bit().constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
        const int error = errno;
        if (file < 0)
            refuse(error == ENOENT ? "there is no such file" : std::strerror(error));
        struct stat status = {};
        const bool isFolder = ::fstat(file, &status) == 0 && S_ISDIR(status.st_mode);
        ::close(file);
        if (isFolder)
            refuse("it is a folder");
    }
};

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

const char* const kForm = R"({"user": "NAME", "password": "WORD"})";

[[noreturn]] void refuseCredentials(const QString& path, const std::string& what)
{
    throw UserError(path.toStdString() + ": " + what);
}

void expectPrivateCredentials(const QString& path)
{
    struct stat status = {};
    if (::stat(path.toLocal8Bit().constData(), &status) != 0)
        refuseCredentials(path, errno == ENOENT ? "there is no such file (create it: " +
                                                      std::string(kForm) + ", mode 0600)"
                                                : std::strerror(errno));
    if (S_ISDIR(status.st_mode))
        refuseCredentials(path, std::string("it is a folder; name a file with ") + kForm);
    // A pipe would let it wait for a writer.
    if (!S_ISREG(status.st_mode))
        refuseCredentials(path, std::string("it is no file; name a file with ") + kForm);
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0)
        refuseCredentials(path, "group or others may read it: chmod 600 makes it private");
}

void expectPrivateKey(const TlsFile& file)
{
    struct stat status = {};
    file.expectReadable();
    if (::stat(file.path.toLocal8Bit().constData(), &status) == 0 &&
        (status.st_mode & S_IRWXO) != 0)
        file.refuse("others may read it: chmod o= makes it private");
}

// Never the content, not even the names of its keys.
std::string mistakeOfCredentials(const std::string& content)
{
    if (content.find_first_not_of(" \t\r\n") == std::string::npos)
        return "it is empty";
    try {
        const JsonNode file = JsonNode::fromText(content, "");
        for (const char* const key : {"user", "password"}) {
            if (file.has(key) && !file.at(key).isText())
                return '"' + std::string(key) + "\" is not a text in quotes";
        }
        return file.has("user") ? R"(it has a key that is neither "user" nor "password")"
                                : R"(it has no "user")";
    } catch (const UserError&) {
        return "it is no JSON";
    }
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

void keepMemoryPrivate()
{
    const rlimit none = {0, 0};
    ::setrlimit(RLIMIT_CORE, &none);
    ::prctl(PR_SET_DUMPABLE, 0);
}

BrokerCredentials readCredentials(const QString& path)
{
    expectPrivateCredentials(path);
    const std::string content = fileContent(path.toStdString());
    BrokerCredentials credentials;
    try {
        const JsonNode file = JsonNode::fromText(content, path.toStdString());
        file.expectKeys({"user", "password"});
        credentials.user = file.at("user").text();
        credentials.password = file.text("password", "");
    } catch (const UserError&) {
        // That message may show what the file has.
        refuseCredentials(path,
                          mistakeOfCredentials(content) + "; it must be " + kForm + ", as JSON");
    }
    if (credentials.user.find('\0') != std::string::npos ||
        credentials.password.find('\0') != std::string::npos)
        refuseCredentials(path, "a byte 00 is not allowed");
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
    if (address.authoritiesFile.isEmpty()) {
        SSL_CTX_set_default_verify_paths(m_context);
        return;
    }
    const TlsFile file = {"authorities", address.authoritiesFile};
    file.expectReadable();
    if (SSL_CTX_load_verify_locations(m_context, file.path.toLocal8Bit().constData(), nullptr) != 1)
        file.refuse("it has no certificates of authorities (PEM)" + weakness());
}

void BrokerSecurity::identify(const BrokerAddress& address)
{
    if (address.certificateFile.isEmpty())
        return;
    const TlsFile certificate = {"certificate", address.certificateFile};
    certificate.expectReadable();
    if (SSL_CTX_use_certificate_chain_file(m_context, certificate.path.toLocal8Bit().constData()) !=
        1)
        certificate.refuse("it has no certificate that can be used (PEM)" + weakness());
    const TlsFile key = {"key", address.keyFile};
    expectPrivateKey(key);
    const bool isRead = SSL_CTX_use_PrivateKey_file(m_context, key.path.toLocal8Bit().constData(),
                                                    SSL_FILETYPE_PEM) == 1;
    const unsigned long error = ERR_peek_last_error();
    if (!isRead && ERR_GET_LIB(error) != ERR_LIB_X509)
        key.refuse("it has no key (PEM, without a pass phrase)" + weakness());
    if (!isRead || SSL_CTX_check_private_key(m_context) != 1)
        key.refuse("it is not the key of " + certificate.path.toStdString() + weakness());
}

void BrokerSecurity::revoke(const BrokerAddress& address)
{
    if (address.revokedFile.isEmpty())
        return;
    const TlsFile file = {"revoked", address.revokedFile};
    file.expectReadable();
    X509_STORE* store = SSL_CTX_get_cert_store(m_context);
    X509_LOOKUP* lookup = X509_STORE_add_lookup(store, X509_LOOKUP_file());
    if (lookup == nullptr ||
        X509_load_crl_file(lookup, file.path.toLocal8Bit().constData(), X509_FILETYPE_PEM) < 1)
        file.refuse("it has no list of revoked certificates (PEM)" + weakness());
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
        throw UserError("tls: " + inQuotes(host.toStdString()) + " is no name of a host");
}

QString BrokerSecurity::verificationReason(long result) const
{
    const bool isOwn = !m_address.authoritiesFile.isEmpty();
    const QString authorities =
        isOwn ? m_address.authoritiesFile : QStringLiteral("the authorities of this system");
    const QString remedy =
        isOwn ? QString()
              : QStringLiteral(" (name the file of its authority in \"tls\": {\"authorities\"})");
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
        return QStringLiteral("it is self-signed, and not among %1").arg(authorities);
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
        return QStringLiteral("its authority is not among %1").arg(authorities) + remedy;
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_CERT_SIGNATURE_FAILURE:
        return QStringLiteral("none of %1 has signed it").arg(authorities) + remedy;
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
    // The gateway cannot know which one it is; the words of the library are "unexpected eof".
    const QString hint = SSL_is_init_finished(connection) != 0
                             ? QString()
                             : QStringLiteral(" (does this port speak TLS?)");
    const bool isEnd = ERR_GET_REASON(queued) == SSL_R_UNEXPECTED_EOF_WHILE_READING;
    if (kind == SSL_ERROR_SSL && !isEnd) {
        const QString known = handshakeReason(queued);
        const char* text = ERR_reason_error_string(queued);
        return QStringLiteral("TLS: %1").arg(
            known.isEmpty() ? QString::fromLatin1(text != nullptr ? text : "unknown error")
                            : known);
    }
    if (kind == SSL_ERROR_SYSCALL && error != 0)
        return QString::fromLocal8Bit(std::strerror(error)) + hint;
    return QStringLiteral("the broker closed the connection") + hint;
}

} // namespace micro850::gateway
