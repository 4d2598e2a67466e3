#include "Commands.h"

namespace micro850::host {

const char kRawHelp[] = "The controller's own numbers: without gain, offset and unit, also of "
                        "times and dates";
const char kStatuses[] =
    "Exit status: 0 done, 1 the controller or the line refused, 2 usage or configuration.";

void addCommands(CommandLine& line)
{
    addProbe(line);
    addPoll(line);
    addRead(line);
    addWrite(line);
    addFind(line);
    addWatch(line);
    addLog(line);
    addHistory(line);
    addTrace(line);
    addCheck(line);
    addImport(line);
    addDoctor(line);
}

void OutputOptions::addTo(CommandOptions& command)
{
    command.flag("--json", json, "One JSON object per line on standard output");
    command.flag("--quiet,-q", quiet, "Only errors on standard error: no notes, no summary");
}

void LineOptions::addTo(CommandOptions& command)
{
    command.text(
        "--port,-p", port,
        "Serial device, e.g. /dev/ttyUSB0; a name without / is looked for here, then in /dev. Or a "
        "device server: tcp://HOST:PORT (raw), rfc2217://HOST:PORT (speed set from here). Default: "
        "the project's, or that of the environment variable MICRO850_PORT");
    command.text("--gateway", gateway,
                 "Socket of a gateway that owns the line, e.g. /run/micro850/gateway.sock; without "
                 "a project, names are its variables. A port that a gateway owns is found without "
                 "it");
    command.text("--line", gatewayLine, "With --gateway: the line of the gateway");
    command.integer("--baud", baud, 300, 4000000,
                    "Speed of the line (default: the project's, or 38400); with tcp:// the server "
                    "sets it, and only time-outs are computed from it");
    command.integer(
        "--timeout", timeoutMs, 0, 60000,
        "Milliseconds to wait for an answer; 0: computed from speed and length (default)");
    command.flagThatClears("--no-low-latency", lowLatency,
                           "Do not ask the serial device to deliver bytes at once");
    command.text("--driver", driver, "The driver library, libmicro850.so");
    command.text("--trace", trace,
                 "Record all frames: FILE.txt or FILE.pcapng; it replaces an earlier trace");
    command.flag("--force", force, "With --trace: replace a file that is not a trace as well");
}

} // namespace micro850::host
