#ifndef MICRO850_EXPORT_H
#define MICRO850_EXPORT_H

// The marks of an exported name.

#include <QtCore/QtGlobal>

/// A function or object exported under its C++ name.
#define MICRO850_EXPORT Q_DECL_EXPORT
/// An entry point exported under its plain name.
#define MICRO850_ENTRY extern "C" Q_DECL_EXPORT

#endif
