#ifndef MICRO850_QTCOMPAT_H
#define MICRO850_QTCOMPAT_H

// The few places where Qt 4.8 and Qt 5 differ, and the marks of an exported name.

#include <QtCore/QChar>
#include <QtCore/QtGlobal>

/// A function or object exported under its C++ name.
#define MICRO850_EXPORT Q_DECL_EXPORT
/// An entry point exported under its plain name.
#define MICRO850_ENTRY extern "C" Q_DECL_EXPORT

#endif
