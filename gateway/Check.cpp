#include "Check.h"

#include "Configuration.h"
#include "Counted.h"
#include "StandardStreams.h"
#include "UserError.h"
#include "VisibleText.h"

#include <iostream>

namespace micro850::gateway {

namespace {

std::string summaryOf(const Configuration& configuration)
{
    int variables = 0;
    int writable = 0;
    for (const LineSettings& line : configuration.lines) {
        variables += line.project.variables.size();
        for (const host::Variable& variable : line.project.variables)
            writable += variable.writable ? 1 : 0;
    }
    const HistorySettings& history = configuration.history;
    const std::string recorded = history.file.isEmpty()
                                     ? "no history"
                                     : "history " + history.file.toStdString() + ", at most " +
                                           counted(history.keepDays, "day").toStdString() +
                                           " and " + std::to_string(history.keepMegabytes) + " MB";
    return counted(configuration.lines.size(), "line").toStdString() + ", " +
           counted(variables, "variable").toStdString() + " (" + std::to_string(writable) +
           " writable), socket " + configuration.socket.path.toStdString() + ", " + recorded;
}

} // namespace

int checkConfiguration(const QString& path)
{
    std::vector<std::string> mistakes;
    const Configuration configuration = Configuration::fromFile(path, mistakes);
    for (const std::string& mistake : mistakes)
        std::cerr << "micro850-gateway: " << mistake << '\n';
    if (!mistakes.empty())
        return kExitUsage;
    writeStandardOutput(visible(path.toStdString()) + ": ok: " + summaryOf(configuration) + '\n');
    return kExitDone;
}

} // namespace micro850::gateway
