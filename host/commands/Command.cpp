#include "Command.h"

namespace micro850::host {

const char kStatuses[] =
    "Exit status: 0 done, 1 the controller or the line refused, 2 usage or configuration.";

void OutputOptions::addTo(CLI::App& command)
{
    command.add_flag("--json", json, "One JSON object a line on standard output");
    command.add_flag("--quiet,-q", quiet, "Errors only on standard error: no notes, no summary");
}

void LineOptions::addTo(CLI::App& command)
{
    command.add_option("--port", port, "Serial device, e.g. /dev/ttyUSB0");
    command.add_option("--baud", baud, "Speed of the line (38400 unless a project says)")
        ->check(CLI::Range(300, 4000000));
    command
        .add_option("--timeout", timeoutMs,
                    "Milliseconds for an answer; 0: from speed and length, as without a project")
        ->check(CLI::Range(0, 60000));
    command.add_option("--driver", driver, "The driver library, libmicro850.so");
    command.add_option("--trace", trace, "Record all frames: FILE.txt or FILE.pcapng");
}

} // namespace micro850::host
