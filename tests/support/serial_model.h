#ifndef MICRO850_TESTS_SERIAL_MODEL_H
#define MICRO850_TESTS_SERIAL_MODEL_H

#include <QtCore/QtGlobal>

/// The serial numbers that connection requests carry, worked out without the driver.
namespace serial_model {

/// The number of a second of the day: the first of Qt's generator with that seed, modulo 16777215.
quint32 at(int secondOfDay);
/// The first second of the day whose number has exactly so many bytes 0x10 among its three.
int secondWithDles(int dles);
/// The present local second of the day by the C library.
int localSecondOfDay();

} // namespace serial_model

#endif
