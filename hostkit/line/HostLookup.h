#ifndef MICRO850_HOST_HOSTLOOKUP_H
#define MICRO850_HOST_HOSTLOOKUP_H

#include "Clock.h"
#include "NetworkAddress.h"

#include <memory>
#include <string>
#include <sys/socket.h>
#include <vector>

namespace micro850::host {

/// Where to connect to.
struct SocketAddress
{
    sockaddr_storage bytes = {};
    socklen_t size = 0;
    int family() const { return bytes.ss_family; }
};

/// The addresses of a host. The system's resolver takes as long as it likes and cannot be stopped;
/// it therefore runs on a thread of its own, and only the wait for it ends.
class HostLookup
{
public:
    explicit HostLookup(const NetworkAddress& address) : m_address(address) {}

    /// Waits for the addresses, at most for this time and until a signal comes. None, with the
    /// reason in `error`, without a result. A lookup that has not ended goes on, and the next call
    /// waits for it; so there is never more than one.
    std::vector<SocketAddress> addresses(Duration wait, QString& error);

private:
    struct Job;
    static std::shared_ptr<Job> begin(const std::string& host, const std::string& port,
                                      QString& error);

    NetworkAddress m_address;
    std::shared_ptr<Job> m_job;
};

} // namespace micro850::host

#endif
