#ifndef MICRO850_GATEWAY_LINES_LINESETTINGS_H
#define MICRO850_GATEWAY_LINES_LINESETTINGS_H

#include "Project.h"

namespace micro850::gateway {

/// A line of the configuration.
struct LineSettings
{
    QString name;
    QString projectFile;
    /// The content of the file, as it was when the configuration was read: the worker gets it from
    /// here.
    QByteArray projectText;
    host::Project project;
};

} // namespace micro850::gateway

#endif
