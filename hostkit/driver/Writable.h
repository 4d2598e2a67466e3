#ifndef MICRO850_HOST_WRITABLE_H
#define MICRO850_HOST_WRITABLE_H

// Which types the driver can write.

#include "CipType.h"
#include "Project.h"

#include <QtCore/QString>

namespace micro850::host {

/// True when the driver can write the type. Of the types that it moves byte by byte it can write
/// only those of one byte.
bool isWritable(const CipType& type);
/// Throws UserError, which names the file and the key, when a variable of the project is to be
/// writable whose type, as far as the project names it, the driver cannot write.
void requireWritableVariables(const Project& project, const QString& file);
/// Throws UserError unless the driver can write the type. `name` is that of the tag.
void requireWritable(const CipType& type, const QString& name);

} // namespace micro850::host

#endif
