#ifndef MICRO850_HOST_CHANNEL_H
#define MICRO850_HOST_CHANNEL_H

#include "LineReader.h"
#include "OutputBuffer.h"

namespace micro850::host {

/// Lines over a connected stream socket, which never blocks. Its owner waits for the descriptor:
/// for input, and for room to send while hasOutput().
class Channel
{
public:
    /// Takes the socket over and makes it non-blocking. `longestLine` is that of an incoming line;
    /// `mostWaiting` bytes can wait to be sent.
    Channel(int socket, int longestLine, qint64 mostWaiting);
    /// Closes the socket.
    ~Channel();
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    int descriptor() const { return m_socket; }

    /// Takes in what has come, but no more than 64 KB; waits for nothing. False when the peer has
    /// closed its end or the socket is broken. next() gives what came before that.
    bool receive();
    /// The next line that came. Take all before the next receive().
    std::optional<LineReader::Line> next() { return m_input.next(); }

    /// Appends a line, which must end with a line feed, and sends what the peer takes. False when
    /// it has no room, or when the peer is gone; then nothing is sent.
    bool send(const QByteArray& line);
    /// Sends what the peer takes now of what waits. False when the peer is gone.
    bool flush();
    bool hasOutput() const { return !m_output.isEmpty(); }
    const OutputBuffer& output() const { return m_output; }

private:
    int m_socket;
    LineReader m_input;
    OutputBuffer m_output;
};

} // namespace micro850::host

#endif
