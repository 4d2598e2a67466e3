#ifndef MICRO850_HOST_QTNOTE_H
#define MICRO850_HOST_QTNOTE_H

#include <QtCore/QString>

namespace micro850::host {

/// The major version of the Qt that a driver library was built for, read from the note in its file
/// so that no code of it runs; 0 if the file has no such note or cannot be read.
int qtMajorOf(const QString& file);

} // namespace micro850::host

#endif
