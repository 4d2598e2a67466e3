#ifndef MICRO850_GATEWAY_CONFIGURATION_H
#define MICRO850_GATEWAY_CONFIGURATION_H

#include "BrokerSettings.h"
#include "ClientSettings.h"
#include "HistorySettings.h"
#include "LineSettings.h"
#include "WebSettings.h"

#include <string>
#include <vector>

namespace micro850::gateway {

/// The content of the gateway's configuration file. All its paths are absolute.
struct Configuration
{
    QVector<LineSettings> lines;
    ClientSettings socket;
    HistorySettings history;
    BrokerSettings brokers;
    WebSettings web;

    /// Reads the file and the project files that it names. Relative paths in it begin at its
    /// folder. Throws UserError that names file, key and remedy of the first mistake, and how many
    /// more there are.
    static Configuration fromFile(const QString& path);
    /// The same, but lists every mistake that can be told apart, each in one line as UserError
    /// would tell it, and throws nothing. With a mistake the configuration must not be used.
    static Configuration fromFile(const QString& path, std::vector<std::string>& mistakes);
};

/// The first of the mistakes and how many more there are, in one line.
std::string complaintOf(const std::vector<std::string>& mistakes);

} // namespace micro850::gateway

#endif
