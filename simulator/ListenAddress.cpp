#include "ListenAddress.h"

#include "UserError.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>

namespace micro850::sim {

namespace {

constexpr unsigned kLastPort = 65535;

[[noreturn]] void refuse(const std::string& text, const std::string& why)
{
    throw UserError("--listen " + text + ": " + why +
                    " (like tcp://127.0.0.1:2000 or tcp://[::1]:2000; port 0 is any free one)");
}

// The address as the system writes it; "" if it is none.
std::string numericHost(const std::string& host, int family)
{
    std::array<unsigned char, sizeof(in6_addr)> bytes{};
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (::inet_pton(family, host.c_str(), bytes.data()) != 1)
        return "";
    return ::inet_ntop(family, bytes.data(), text.data(), text.size());
}

std::string parseHost(const std::string& text, std::string host)
{
    const bool inBrackets = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (inBrackets)
        host = host.substr(1, host.size() - 2);
    const std::string numeric = numericHost(host, inBrackets ? AF_INET6 : AF_INET);
    if (!numeric.empty())
        return numeric;
    if (!numericHost(host, AF_INET6).empty())
        refuse(text, "the address needs brackets");
    refuse(text, '"' + host + "\" is not a numeric address");
}

std::uint16_t parsePort(const std::string& text, const std::string& digits)
{
    if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos)
        refuse(text, '"' + digits + "\" is not the number of a port");
    // Five digits hold every port, and fit into a number.
    const std::string value = digits.substr(std::min(digits.find_first_not_of('0'), digits.size()));
    if (value.size() > 5 || (!value.empty() && std::stoul(value) > kLastPort))
        refuse(text, "port " + digits + " is beyond the last one, " + std::to_string(kLastPort));
    return static_cast<std::uint16_t>(value.empty() ? 0 : std::stoul(value));
}

} // namespace

bool ListenAddress::isLoopback() const
{
    return isIpv6() ? host == "::1" : host.compare(0, 4, "127.") == 0;
}

std::string ListenAddress::text() const
{
    return "tcp://" + (isIpv6() ? '[' + host + ']' : host) + ':' + std::to_string(port);
}

ListenAddress ListenAddress::following(unsigned count) const
{
    if (port == 0)
        return *this;
    if (count > kLastPort - port)
        throw UserError("--listen " + text() +
                        ": the stations have ports one after the other, and " +
                        std::to_string(kLastPort) + " is the last one (choose a lower port, or 0)");
    return {host, static_cast<std::uint16_t>(port + count)};
}

ListenAddress parseListenAddress(const std::string& text)
{
    const std::string scheme = "tcp://";
    if (text.compare(0, scheme.size(), scheme) != 0)
        refuse(text, "it does not begin with " + scheme);
    const std::string rest = text.substr(scheme.size());
    const std::size_t colon = rest.rfind(':');
    if (colon == std::string::npos || rest.back() == ']')
        refuse(text, "the port is missing");
    return {parseHost(text, rest.substr(0, colon)), parsePort(text, rest.substr(colon + 1))};
}

} // namespace micro850::sim
