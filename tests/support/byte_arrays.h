#ifndef MICRO850_TESTS_BYTE_ARRAYS_H
#define MICRO850_TESTS_BYTE_ARRAYS_H

#include "Bytes.h"

#include <QtCore/QByteArray>

// The bytes of the driver and the host kit as bytes of the simulator, and back.

inline micro850::Bytes toBytes(const QByteArray& array)
{
    return {array.begin(), array.end()};
}

inline QByteArray toByteArray(const micro850::Bytes& bytes)
{
    return {reinterpret_cast<const char*>(bytes.data()), static_cast<int>(bytes.size())};
}

#endif
