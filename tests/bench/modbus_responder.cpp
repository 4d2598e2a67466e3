// modbus_responder: a Modbus RTU device on a pseudo-terminal; prints the path. Answers function 3
// (read holding registers) and refuses the others, until a signal ends it. It answers a request as
// soon as the last byte has arrived, without waiting for the pause that ends a frame on the line,
// so that it adds as little as possible to the time of its clients.

#include "pseudo_terminal.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <poll.h>
#include <unistd.h>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

const std::size_t kRequestBytes = 8; // address, function, first register, count, CRC
const std::uint8_t kReadRegisters = 3;
const std::uint8_t kIllegalFunction = 1;
const std::uint8_t kIllegalValue = 3;
const unsigned kMostRegisters = 125;

// CRC-16/MODBUS, low byte first on the line.
std::uint16_t crcOf(const std::uint8_t* bytes, std::size_t count)
{
    unsigned crc = 0xFFFF;
    for (std::size_t i = 0; i < count; ++i) {
        crc ^= bytes[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1u) != 0 ? (crc >> 1) ^ 0xA001u : crc >> 1;
    }
    return static_cast<std::uint16_t>(crc);
}

Bytes closed(Bytes frame)
{
    const std::uint16_t crc = crcOf(frame.data(), frame.size());
    frame.push_back(static_cast<std::uint8_t>(crc));
    frame.push_back(static_cast<std::uint8_t>(crc >> 8));
    return frame;
}

Bytes refusal(const Bytes& request, std::uint8_t reason)
{
    return closed({request[0], static_cast<std::uint8_t>(request[1] | 0x80u), reason});
}

// The value of each register is its number.
Bytes replyTo(const Bytes& request)
{
    const unsigned first = request[2] * 256u + request[3];
    const unsigned count = request[4] * 256u + request[5];
    if (request[1] != kReadRegisters)
        return refusal(request, kIllegalFunction);
    if (count == 0 || count > kMostRegisters)
        return refusal(request, kIllegalValue);
    Bytes reply = {request[0], request[1], static_cast<std::uint8_t>(2 * count)};
    for (unsigned number = first; number < first + count; ++number) {
        reply.push_back(static_cast<std::uint8_t>(number >> 8));
        reply.push_back(static_cast<std::uint8_t>(number));
    }
    return closed(reply);
}

// Removes the first intact request from the received bytes; drops the noise before it.
bool parseRequest(Bytes& input, Bytes& request)
{
    while (input.size() >= kRequestBytes) {
        const unsigned received = input[6] | input[7] << 8;
        if (crcOf(input.data(), kRequestBytes - 2) == received) {
            request.assign(input.begin(), input.begin() + kRequestBytes);
            input.erase(input.begin(), input.begin() + kRequestBytes);
            return true;
        }
        input.erase(input.begin());
    }
    return false;
}

} // namespace

int main()
{
    const PseudoTerminal terminal;
    std::printf("%s\n", terminal.path().c_str());
    std::fflush(stdout);
    Bytes input;
    Bytes request;
    for (;;) {
        pollfd wait = {terminal.descriptor(), POLLIN, 0};
        ::poll(&wait, 1, -1);
        std::array<std::uint8_t, 512> buffer;
        const ssize_t count = ::read(terminal.descriptor(), buffer.data(), buffer.size());
        if (count > 0)
            input.insert(input.end(), buffer.begin(), buffer.begin() + count);
        while (parseRequest(input, request)) {
            const Bytes reply = replyTo(request);
            if (::write(terminal.descriptor(), reply.data(), reply.size()) < 0)
                return 1;
        }
    }
}
