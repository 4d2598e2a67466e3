#ifndef MICRO850_GATEWAY_CONFIGURATION_H
#define MICRO850_GATEWAY_CONFIGURATION_H

#include "ClientSettings.h"
#include "HistorySettings.h"
#include "LineSettings.h"

namespace micro850::gateway {

/// The content of the gateway's configuration file.
struct Configuration
{
    QVector<LineSettings> lines;
    ClientSettings socket;
    HistorySettings history;

    /// Reads the file and the project files that it names, which are looked for from its folder.
    /// Throws UserError that names file, key and remedy.
    static Configuration fromFile(const QString& path);
};

} // namespace micro850::gateway

#endif
