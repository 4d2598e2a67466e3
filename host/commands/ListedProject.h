#ifndef MICRO850_HOST_COMMANDS_LISTEDPROJECT_H
#define MICRO850_HOST_COMMANDS_LISTEDPROJECT_H

#include "Json.h"
#include "Project.h"

#include <string>

namespace micro850::host {

/// A variable as a project has it. `station` is the one that it has when it names none.
Json projectObjectOf(const Variable& variable, int station);
/// A project file with these variables, a line for each. `port` may be an empty object. Throws
/// UserError for a port that no project can have.
std::string projectTextOf(const QVector<Variable>& variables, const Json& port);

} // namespace micro850::host

#endif
