#ifndef MICRO850_TESTS_SERIAL_NUMBERS_H
#define MICRO850_TESTS_SERIAL_NUMBERS_H

#include <QtCore/QtGlobal>

/// The serial numbers of connection requests, computed without the driver.
namespace serial_numbers {

/// The serial number in a second of the day: the first number of Qt's generator with the second as
/// seed, modulo 16777215.
quint32 at(int secondOfDay);
/// The first second of the day in whose serial number exactly `dles` of the three bytes are 0x10.
int secondWithDles(int dles);
/// The local second of the day, by the C++ library.
int localSecondOfDay();

} // namespace serial_numbers

#endif
