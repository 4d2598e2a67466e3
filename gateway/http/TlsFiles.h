#ifndef MICRO850_GATEWAY_HTTP_TLSFILES_H
#define MICRO850_GATEWAY_HTTP_TLSFILES_H

#include <QtCore/QByteArray>
#include <QtCore/QString>

namespace micro850::gateway {

/// What a server of TLS shows, and what proves that it is its own.
struct TlsFiles
{
    QByteArray certificate; ///< PEM, with the chain
    QByteArray key;         ///< PEM

    /// Throws UserError for files that cannot be read, are none such, or do not belong together,
    /// and for a key that others can read or that needs a pass phrase.
    static TlsFiles read(const QString& certificateFile, const QString& keyFile);
};

} // namespace micro850::gateway

#endif
