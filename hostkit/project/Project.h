#ifndef MICRO850_HOST_PROJECT_H
#define MICRO850_HOST_PROJECT_H

#include "CipType.h"
#include "PortSettings.h"

#include <QtCore/QString>
#include <QtCore/QVector>

namespace micro850::host {

/// How often a variable is read.
enum class PollMode { Cyclic, Once };

/// One variable of a project: a name for a run of elements of a controller's tag.
struct Variable
{
    QString name;
    /// The name in lines of output when it is not shownName(name): of a part of a variable.
    QString label;
    QString tag;
    int station = 1;
    /// The type that the project requires; null when it leaves the type to the controller.
    const CipType* type = nullptr;
    int element = 0;
    int length = 1;
    /// The area of its writes; with 0 the host assigns an area to each tag. The driver replaces a
    /// queued write by a later one to the same area, element and count, whatever its tag.
    int area = 0;
    PollMode poll = PollMode::Cyclic;
    /// The host shows value * gain + offset, followed by the unit.
    double gain = 1;
    double offset = 0;
    QString unit;
    /// The host shows the controller's own numbers, without gain, offset and unit.
    bool raw = false;

    /// How lines of output name it.
    QString shownName() const;
    bool isScaled() const { return gain != 1 || offset != 0; }
};

struct StationSettings
{
    int number = 1;
    QString name;
    bool enabled = true;
};

/// The content of a project file.
struct Project
{
    PortSettings port;
    /// The host shows a value as stale when no reply refreshed it for this long.
    int staleAfterMs = 5000;
    QVector<StationSettings> stations;
    QVector<Variable> variables;

    /// Reads a project file. Throws UserError naming file, key path and remedy.
    static Project fromFile(const QString& path);
    /// The same from a text; messages call it `name`.
    static Project fromText(const QString& text, const QString& name);

    /// Makes every variable show the controller's own numbers.
    void showRaw();

    bool hasStation(int number) const;
    /// The variable of that name, or null.
    const Variable* variable(const QString& name) const;
};

} // namespace micro850::host

#endif
