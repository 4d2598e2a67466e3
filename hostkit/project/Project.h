#ifndef MICRO850_HOST_PROJECT_H
#define MICRO850_HOST_PROJECT_H

#include "CipType.h"
#include "PortSettings.h"

#include <QtCore/QString>
#include <QtCore/QVector>

namespace micro850::host {

/// How often a variable is read.
enum class PollMode { Cyclic, Once };

/// One variable of a project: a run of elements of a controller's tag under a name of its own.
struct Variable
{
    QString name;
    QString tag;
    int station = 1;
    /// What the project says about the type, null where it leaves that to the controller.
    const CipType* type = nullptr;
    int element = 0;
    int length = 1;
    /// The area that its writes carry, 0 where the host gives each tag its own. The driver replaces
    /// a queued write by a later one to the same area, element and count, whatever its tag.
    int area = 0;
    PollMode poll = PollMode::Cyclic;
    /// Shown is value * gain + offset, with the unit behind it.
    double gain = 1;
    double offset = 0;
    QString unit;

    bool isScaled() const { return gain != 1 || offset != 0; }
    /// True when values of this type are scaled: only numbers are.
    bool scales(const CipType& of) const { return isScaled() && isNumber(of); }
};

struct StationSettings
{
    int number = 1;
    QString name;
    bool enabled = true;
};

/// What a project file says.
struct Project
{
    PortSettings port;
    /// A value that no reply has refreshed for so long is shown as stale.
    int staleAfterMs = 5000;
    QVector<StationSettings> stations;
    QVector<Variable> variables;

    /// Reads a project file. Throws UserError naming file, key path and remedy.
    static Project fromFile(const QString& path);
    /// The same from a text; `name` stands for the file in messages.
    static Project fromText(const QString& text, const QString& name);

    bool hasStation(int number) const;
    /// The variable of that name, or null.
    const Variable* variable(const QString& name) const;
};

} // namespace micro850::host

#endif
