#ifndef MICRO850_TESTS_EXHAUST_LINE_H
#define MICRO850_TESTS_EXHAUST_LINE_H

#include <QtCore/QByteArray>

/// What arrives for a frame that was sent, by a controller and a line of the test's own.
namespace line {

/// The controller's answer to the driver's frame. A tag named A... is of type INT, B... DINT,
/// C... SHORT_STRING, D... LINT, E... SINT, F... BOOL.
QByteArray good(const QByteArray& frame, int station);
/// The same with the status of a path that leads nowhere.
QByteArray refused(const QByteArray& answer);
/// The answer of a controller that has forgotten the connection. It answers a set-up as before.
QByteArray forgotten(const QByteArray& answer);
/// A byte of the data is changed, the end and the CRC are not.
QByteArray corrupt(const QByteArray& answer);
/// The second half is missing.
QByteArray cut(const QByteArray& answer);
/// An intact answer with another transaction number.
QByteArray foreign(const QByteArray& answer);

} // namespace line

#endif
