#include "TokenFile.h"

#include "Descriptor.h"
#include "UserError.h"
#include "VisibleText.h"

#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <fcntl.h>
#include <pwd.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

namespace micro850::gateway {

namespace {

const int kTokenBytes = 32;
const int kTokenLength = 43; // in the alphabet for addresses, without padding

[[noreturn]] void refuse(const QString& path, const std::string& what,
                         ExitStatus status = kExitUsage)
{
    throw UserError(visible(path.toStdString()) + ": " + what, status);
}

bool isToken(const QByteArray& text)
{
    return text.size() == kTokenLength && std::all_of(text.begin(), text.end(), [](char c) {
               return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                      c == '-' || c == '_';
           });
}

// A little more than a token needs, so that a longer content is noticed.
QByteArray beginningOf(int descriptor)
{
    QByteArray content(kTokenLength + 16, '\0');
    const ssize_t got =
        ::read(descriptor, content.data(), static_cast<std::size_t>(content.size()));
    content.truncate(static_cast<int>(std::max<ssize_t>(got, 0)));
    return content.trimmed();
}

// Who replaces a token keeps its owner, and never destroys a file that is something else.
std::optional<struct stat> replaceableFile(const QString& path, bool mayReplace)
{
    const QByteArray name = QFile::encodeName(path);
    struct stat status = {};
    if (::lstat(name.constData(), &status) != 0)
        return std::nullopt;
    if (!mayReplace)
        refuse(path, "it is there already (--replace makes another token in its place; the old one "
                     "is worth nothing then)");
    const Descriptor file(
        S_ISREG(status.st_mode)
            ? ::open(name.constData(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)
            : -1);
    const QByteArray content = file.number() < 0 ? "?" : beginningOf(file.number());
    if (!content.isEmpty() && !isToken(content))
        refuse(path, "it is there and is no token file that you may read (choose another path)");
    return status;
}

struct Owner
{
    uid_t user;
    gid_t group;
};

std::optional<Owner> ownerOf(const std::string& name, const std::optional<struct stat>& before)
{
    if (name.empty())
        return before ? std::optional<Owner>({before->st_uid, before->st_gid}) : std::nullopt;
    const passwd* user = ::getpwnam(name.c_str()); // NOLINT(concurrency-mt-unsafe): one thread
    if (user == nullptr)
        throw UserError("--owner: the system knows no user " + inQuotes(name));
    return Owner{user->pw_uid, user->pw_gid};
}

/// A file beside the one that it will be.
class NewFile
{
public:
    explicit NewFile(const QString& path)
        : m_path(path), m_name(QFile::encodeName(path) + ".XXXXXX"),
          m_file(::mkostemp(m_name.data(), O_CLOEXEC))
    {
        if (m_file.number() < 0)
            fail();
    }
    ~NewFile()
    {
        if (!m_isMoved)
            ::unlink(m_name.constData());
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    void give(const Owner& owner)
    {
        if (::fchown(m_file.number(), owner.user, owner.group) != 0)
            refuse(m_path,
                   std::string("it cannot be given to its owner: ") + std::strerror(errno) +
                       " (use sudo)",
                   kExitRefused);
    }
    void write(const QByteArray& content)
    {
        const auto size = static_cast<std::size_t>(content.size());
        const ssize_t written = ::write(m_file.number(), content.constData(), size);
        if (written >= 0 && written != content.size())
            errno = ENOSPC;
        if (written != content.size() || ::fsync(m_file.number()) != 0)
            fail();
    }
    void move(bool mayReplace)
    {
        const QByteArray target = QFile::encodeName(m_path);
        const int flags = mayReplace ? 0 : RENAME_NOREPLACE;
        if (::renameat2(AT_FDCWD, m_name.constData(), AT_FDCWD, target.constData(), flags) != 0)
            fail();
        m_isMoved = true;
    }

private:
    [[noreturn]] void fail() const
    {
        const int error = errno;
        refuse(m_path,
               error == ENOENT ? "there is no such folder (create it)"
                               : std::string("it cannot be written: ") + std::strerror(error),
               kExitRefused);
    }

    const QString m_path;
    QByteArray m_name;
    Descriptor m_file;
    bool m_isMoved = false;
};

const char* const kRemedy = "make one with micro850-gateway token FILE";

} // namespace

QByteArray randomBytes(int size)
{
    QByteArray bytes(size, '\0');
    const auto wanted = static_cast<std::size_t>(size);
    // Up to 256 bytes come at once, and without an interruption.
    if (::getrandom(bytes.data(), wanted, 0) != static_cast<ssize_t>(wanted))
        throw UserError("the system has no random numbers", kExitRefused);
    return bytes;
}

QByteArray newToken()
{
    return randomBytes(kTokenBytes)
        .toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals);
}

void writeTokenFile(const QString& path, const QByteArray& token, const TokenFileOptions& options)
{
    if (path.isEmpty() || path.endsWith(QLatin1Char('/')) || QFileInfo(path).isDir())
        refuse(path, "it is a folder (give the name of a file)");
    const std::optional<struct stat> before = replaceableFile(path, options.replace);
    const std::optional<Owner> owner = ownerOf(options.owner, before);
    NewFile file(path);
    if (owner)
        file.give(*owner);
    file.write(token + '\n');
    file.move(before.has_value());
}

QByteArray readTokenFile(const QString& path)
{
    // A pipe would let it wait for a writer.
    const Descriptor file(
        ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    const int error = errno;
    if (file.number() < 0)
        refuse(path, error == ENOENT ? std::string("there is no such file (") + kRemedy + ')'
                                     : std::strerror(error));
    struct stat status = {};
    if (::fstat(file.number(), &status) != 0 || !S_ISREG(status.st_mode))
        refuse(path, std::string("it is no file with a token (") + kRemedy + ')');
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0)
        refuse(path, "group or others may read or write it: chmod 600 makes it private");
    const uid_t self = ::geteuid();
    if (status.st_uid != self && status.st_uid != 0 && self != 0)
        refuse(path, "it belongs to another user, who may read it (give it to the user of the "
                     "service)");
    const QByteArray token = beginningOf(file.number());
    if (!isToken(token))
        refuse(path, std::string("it has no token (") + kRemedy + ')');
    return token;
}

} // namespace micro850::gateway
