#ifndef MICRO850_GATEWAY_HISTORY_HISTORYSETTINGS_H
#define MICRO850_GATEWAY_HISTORY_HISTORYSETTINGS_H

#include <QtCore/QString>

namespace micro850::gateway {

/// The section "history" of the configuration.
struct HistorySettings
{
    /// The database; empty: nothing is recorded.
    QString file;
    int keepDays = 90;
    int keepMegabytes = 1024;
};

} // namespace micro850::gateway

#endif
