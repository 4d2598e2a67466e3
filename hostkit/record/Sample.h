#ifndef MICRO850_HOST_SAMPLE_H
#define MICRO850_HOST_SAMPLE_H

#include "CipValue.h"

#include <QtCore/QDateTime>
#include <QtCore/QString>
#include <QtCore/QVector>

#include <optional>

namespace micro850::host {

/// A variable at one time.
struct Sample
{
    QDateTime time;
    QString name;
    int station;
    QString tag;
    int element;
    QString type;
    /// Of several elements one text; nothing before the first good reply.
    std::optional<CipValue> value;
    QString unit;
    QString quality;
    QString error;
    /// The values one by one; none before the first good reply.
    QVector<CipValue> elements = {};
};

} // namespace micro850::host

#endif
