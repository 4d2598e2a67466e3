#include "HostLookup.h"

#include "PollTimeout.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <netdb.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace micro850::host {

namespace {

struct Result
{
    int error = 0;
    std::vector<SocketAddress> addresses;
};

Result resolve(const std::string& host, const std::string& port, int flags)
{
    Result result;
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV | flags;
    addrinfo* found = nullptr;
    result.error = ::getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
    if (result.error != 0)
        return result;
    for (const addrinfo* entry = found; entry; entry = entry->ai_next) {
        SocketAddress address;
        std::memcpy(&address.bytes, entry->ai_addr, entry->ai_addrlen);
        address.size = entry->ai_addrlen;
        result.addresses.push_back(address);
    }
    ::freeaddrinfo(found);
    return result;
}

QString reasonOf(const QString& host, int error)
{
    if (error == EAI_AGAIN)
        return QStringLiteral("no name server tells the address of %1").arg(host);
    if (error == EAI_NONAME && host.contains(QLatin1Char('%')))
        return QStringLiteral("this machine has no interface %1")
            .arg(host.section(QLatin1Char('%'), 1));
    if (error == EAI_NONAME || error == EAI_FAIL || error == EAI_NODATA)
        return QStringLiteral("the name %1 is not known").arg(host);
    return QStringLiteral("the address of %1 cannot be found: %2")
        .arg(host, QString::fromLocal8Bit(::gai_strerror(error)));
}

// Whether the descriptor can be read before the time is over or a signal comes; errno tells which.
bool becomesReadable(int descriptor, Duration wait)
{
    errno = 0;
    pollfd input = {descriptor, POLLIN, 0};
    return ::poll(&input, 1, pollTimeout(wait)) > 0;
}

} // namespace

/// What the thread and the caller share; the last one to let go deletes it.
struct HostLookup::Job
{
    Job() : done(::eventfd(0, EFD_CLOEXEC)) {}
    ~Job()
    {
        if (done >= 0)
            ::close(done);
    }
    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;

    int done;
    Result result; ///< valid when `done` can be read
};

std::vector<SocketAddress> HostLookup::addresses(Duration wait, QString& error)
{
    const std::string host = m_address.host.toStdString();
    const std::string port = std::to_string(m_address.port);
    Result result = resolve(host, port, AI_NUMERICHOST);
    if (result.error == 0)
        return result.addresses;
    if (!m_job)
        m_job = begin(host, port, error);
    const std::shared_ptr<Job> job = m_job;
    if (!job)
        return {};
    if (!becomesReadable(job->done, wait)) {
        error = errno == EINTR ? QStringLiteral("interrupted")
                               : QStringLiteral("the name %1 was not resolved within %2 s")
                                     .arg(m_address.host)
                                     .arg(wholeMilliseconds(wait) / 1000);
        return {};
    }
    m_job.reset();
    if (job->result.addresses.empty())
        error = reasonOf(m_address.host, job->result.error);
    return job->result.addresses;
}

// Null, with the reason in `error`, when the system refuses what it takes.
std::shared_ptr<HostLookup::Job> HostLookup::begin(const std::string& host, const std::string& port,
                                                   QString& error)
{
    auto job = std::make_shared<Job>();
    if (job->done < 0) {
        error =
            QStringLiteral("the address of %1 cannot be looked up: %2")
                .arg(QString::fromStdString(host), QString::fromLocal8Bit(std::strerror(errno)));
        return nullptr;
    }
    // Signals are for the thread that waits.
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        std::thread([job, host, port] {
            job->result = resolve(host, port, AI_ADDRCONFIG);
            // The loop-back addresses count for AI_ADDRCONFIG only with others beside them.
            if (job->result.error != 0)
                job->result = resolve(host, port, 0);
            ::eventfd_write(job->done, 1);
        }).detach();
    } catch (const std::system_error& failure) {
        error = QString::fromLocal8Bit(failure.what());
        job.reset();
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return job;
}

} // namespace micro850::host
