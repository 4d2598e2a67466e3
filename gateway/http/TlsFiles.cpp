#include "TlsFiles.h"

#include "Descriptor.h"
#include "UserError.h"

#include <gnutls/gnutls.h>
#include <gnutls/x509.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QtCore/QFile>

#include <cerrno>
#include <cstring>

namespace micro850::gateway {

namespace {

const qint64 kMostBytes = 1024LL * 1024;

[[noreturn]] void refuse(const char* key, const QString& path, const std::string& what)
{
    throw UserError(std::string("web.") + key + ": " + path.toStdString() + ": " + what);
}

// `isSecret`: others must not be able to read it.
QByteArray content(const char* key, const QString& path, bool isSecret)
{
    const Descriptor file(
        ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file.number() < 0)
        refuse(key, path, errno == ENOENT ? "there is no such file" : std::strerror(errno));
    struct stat status = {};
    if (::fstat(file.number(), &status) != 0 || !S_ISREG(status.st_mode))
        refuse(key, path, S_ISDIR(status.st_mode) ? "it is a folder" : "it is no file");
    if (isSecret && (status.st_mode & S_IRWXO) != 0)
        refuse(key, path, "others may read it: chmod o= makes it private");
    if (status.st_size > kMostBytes)
        refuse(key, path, "it is too large for a PEM file");
    QByteArray bytes(static_cast<int>(status.st_size), '\0');
    const ssize_t got = ::read(file.number(), bytes.data(), static_cast<std::size_t>(bytes.size()));
    if (got != bytes.size())
        refuse(key, path, got < 0 ? std::strerror(errno) : "it changed while it was read");
    return bytes;
}

gnutls_datum_t datumOf(const QByteArray& bytes)
{
    return {reinterpret_cast<unsigned char*>(const_cast<char*>(bytes.constData())),
            static_cast<unsigned>(bytes.size())};
}

/// What the library can do with the files.
class Credentials
{
public:
    Credentials() { gnutls_certificate_allocate_credentials(&m_credentials); }
    ~Credentials() { gnutls_certificate_free_credentials(m_credentials); }
    Credentials(const Credentials&) = delete;
    Credentials& operator=(const Credentials&) = delete;

    int take(const TlsFiles& files)
    {
        const gnutls_datum_t certificate = datumOf(files.certificate);
        const gnutls_datum_t key = datumOf(files.key);
        return gnutls_certificate_set_x509_key_mem(m_credentials, &certificate, &key,
                                                   GNUTLS_X509_FMT_PEM);
    }

private:
    gnutls_certificate_credentials_t m_credentials = nullptr;
};

bool isCertificate(const QByteArray& bytes)
{
    const gnutls_datum_t datum = datumOf(bytes);
    gnutls_x509_crt_t* list = nullptr;
    unsigned count = 0;
    if (gnutls_x509_crt_list_import2(&list, &count, &datum, GNUTLS_X509_FMT_PEM, 0) < 0)
        return false;
    for (unsigned i = 0; i < count; ++i)
        gnutls_x509_crt_deinit(list[i]);
    gnutls_free(list);
    return count > 0;
}

} // namespace

TlsFiles TlsFiles::read(const QString& certificateFile, const QString& keyFile)
{
    if (keyFile.isEmpty())
        throw UserError("web.key: it is missing (a certificate needs its private key)");
    TlsFiles files;
    files.certificate = content("certificate", certificateFile, false);
    files.key = content("key", keyFile, true);
    if (!isCertificate(files.certificate))
        refuse("certificate", certificateFile, "it has no certificate in the format PEM");
    const int result = Credentials().take(files);
    if (result == GNUTLS_E_CERTIFICATE_KEY_MISMATCH)
        refuse("key", keyFile,
               "it is not the key of the certificate " + certificateFile.toStdString());
    if (files.key.contains("ENCRYPTED"))
        refuse("key", keyFile,
               "it has a pass phrase, which nobody could enter: give a key without");
    if (result < 0)
        refuse("key", keyFile, "it has no private key in the format PEM");
    return files;
}

} // namespace micro850::gateway
