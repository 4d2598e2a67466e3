#ifndef MICRO850_HOST_PROJECT_H
#define MICRO850_HOST_PROJECT_H

#include "CipType.h"
#include "CipValue.h"
#include "PortSettings.h"

#include <QtCore/QString>
#include <QtCore/QVector>

#include <optional>
#include <string>
#include <vector>

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
    /// How often it is read; 0: as often as the line allows. None: as the program says, see
    /// Project::setInterval(); a PollLoop takes it for 0.
    std::optional<int> intervalMs;
    /// A change is told when the value differs by more than this from the one told last. Like the
    /// limits below, it is a number as the variable shows it.
    double deadband = 0;
    /// Told at least so often, changed or not; 0: only when it changed.
    int heartbeatMs = 0;
    // What the gateway and the live table allow to write; other commands write without these rules.
    bool writable = false;
    /// The file says that it must not be written, and does not just leave `writable` out.
    bool isProtected = false;
    /// Exact, also of 64 bits; see isWithinLimits().
    std::optional<CipValue> minimum;
    std::optional<CipValue> maximum;
    /// None: as many as there are.
    std::optional<int> writesPerMinute;
    /// The host shows value * gain + offset, followed by the unit.
    double gain = 1;
    double offset = 0;
    QString unit;
    /// What it is, for people who read the file.
    QString comment;
    /// The host shows the controller's own numbers, without gain, offset and unit.
    bool raw = false;

    /// How lines of output name it.
    QString shownName() const;
    bool isScaled() const { return gain != 1 || offset != 0; }
};

/// The reading interval of a program that nobody tells one.
const int kDefaultIntervalMs = 500;

struct StationSettings
{
    int number = 1;
    QString name;
    bool enabled = true;
};

/// What is wrong in a project file.
struct ProjectMistake
{
    int line = 0;        ///< from 1; 0 when no line can be named
    std::string pointer; ///< JSON pointer of the value
    std::string problem; ///< "variables[3].type: ..."
    std::string message; ///< "plant.json:12: variables[3].type: ..."
};

/// So many mistakes of a file are told at most.
const int kMostMistakes = 100;

/// The content of a project file.
struct Project
{
    PortSettings port;
    /// The host shows a value as stale when no reply refreshed it for this long, or, when that is
    /// longer, for two intervals of its variable.
    int staleAfterMs = 5000;
    QVector<StationSettings> stations;
    QVector<Variable> variables;

    /// Reads a project file. Throws UserError naming file, line, key path and remedy of its first
    /// mistake, and how many more there are.
    static Project fromFile(const QString& path);
    /// Reads a text; messages call it `name`, and tell no line.
    static Project fromText(const QString& text, const QString& name);
    /// All mistakes of a file, in its order, kMostMistakes at most; none for one that fromFile()
    /// reads. Mistakes that only follow from others are left out. Throws UserError for a file that
    /// cannot be read.
    static std::vector<ProjectMistake> mistakesIn(const QString& path);
    /// The same of a text; messages call it `name`.
    static std::vector<ProjectMistake> mistakesInText(const QString& text, const QString& name);

    /// Makes every variable show the controller's own numbers; dead bands and limits follow.
    void showRaw();
    /// Sets the reading interval of the variables that name none.
    void setInterval(int milliseconds);
    /// Makes every variable be read as often as the line allows.
    void readAllFast();

    bool hasStation(int number) const;
    /// The variable of that name, or null.
    const Variable* variable(const QString& name) const;
};

} // namespace micro850::host

#endif
