#ifndef MICRO850_HOST_NAMEPATTERN_H
#define MICRO850_HOST_NAMEPATTERN_H

#include <QtCore/QString>

namespace micro850::host {

/// True when a name contains the pattern, in upper or lower case. With * or ? the pattern is one
/// for the whole name. The empty pattern matches all names.
bool nameMatches(const QString& name, const QString& pattern);

} // namespace micro850::host

#endif
