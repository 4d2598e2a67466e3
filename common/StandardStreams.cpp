#include "StandardStreams.h"

#include "OutputFile.h"
#include "PlainText.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace micro850 {

void prepareStandardStreams()
{
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(stream, F_GETFD) >= 0 || errno != EBADF)
            continue;
        // The lowest free number is this stream's.
        const int opened = ::open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
        if (opened > STDERR_FILENO)
            ::close(opened);
    }
}

void writeStandardOutput(const std::string& text)
{
    writeAll(STDOUT_FILENO, textFor(STDOUT_FILENO, text), "standard output");
}

} // namespace micro850
