#ifndef MICRO850_GATEWAY_LOOP_MEMORY_H
#define MICRO850_GATEWAY_LOOP_MEMORY_H

#include <QtCore/QtGlobal>

namespace micro850::gateway {

/// The main memory that this process uses, in kilobytes; 0 when the system does not tell.
qint64 memoryKb();

} // namespace micro850::gateway

#endif
