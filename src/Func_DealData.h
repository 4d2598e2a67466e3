#ifndef MICRO850_FUNC_DEALDATA_H
#define MICRO850_FUNC_DEALDATA_H

// Storing the value of a read reply.

#include "Micro850Export.h"

#include <QtCore/QByteArray>

/// Stores type and value bytes of the reply to the frame in flight in the station's tag store.
/// Undoubles `reply` in place. Checks no status. A null reply, or one without a frame in flight,
/// stores nothing. Called by DataCom(), on the local link with `dataMutex` held.
MICRO850_EXPORT void SaveToLocalDataErea(QByteArray* reply);

#endif
