#ifndef MICRO850_GATEWAY_WEB_TOKENFILE_H
#define MICRO850_GATEWAY_WEB_TOKENFILE_H

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <string>

namespace micro850::gateway {

/// 256 random bits as 43 characters that need no escape anywhere.
QByteArray newToken();

struct TokenFileOptions
{
    std::string owner;    ///< a user who gets the file; empty: who makes it
    bool replace = false; ///< a token that is there
};

/// Writes the token into a file with mode 0600, as a whole or not at all. Throws UserError when a
/// file is there that may not be replaced, and when it cannot be written.
void writeTokenFile(const QString& path, const QByteArray& token, const TokenFileOptions& options);

/// The token in a file. Throws UserError when it cannot be read, has no token, or when others than
/// its owner may read or write it. No message has any of its content.
QByteArray readTokenFile(const QString& path);

/// `size` random bytes of the system.
QByteArray randomBytes(int size);

} // namespace micro850::gateway

#endif
