#ifndef MICRO850_HOST_FAILURE_H
#define MICRO850_HOST_FAILURE_H

#include <QtCore/QString>

namespace micro850::host {

struct Reply;

/// Why a station has no connection, or an operation no result.
struct Failure
{
    enum class Cause {
        None,
        Silence, ///< no reply came in time
        Garbage, ///< bytes came, but no reply
        Refusal, ///< a reply came, which refuses
        Disabled ///< by the project; nothing was sent
    };
    Cause cause = Cause::None;
    QString text;
    QString remedy; ///< what the user can do; empty when there is nothing to advise
};

/// What came instead of the reply, if anything.
enum class Heard {
    Nothing,
    Garbage,    ///< bytes that belong to no intact frame
    LateReplies ///< intact replies of earlier requests
};
/// No reply came. Where the server of the line sets the speed, the remedy says so.
Failure noReply(Heard heard = Heard::Nothing, bool setsSpeed = true);
/// The controller refuses to open a connection.
Failure refusedConnection(const Reply& reply);
/// The controller does not know the connection any more.
Failure lostConnection(const Reply& reply);
/// No reply to a request came before the controller had given up the connection.
Failure lostReply();
/// The line went down before the reply came.
Failure lostLine(const QString& why);
/// A reply came that the driver or the host cannot use.
Failure unusableReply();
Failure disabledStation(int station);

} // namespace micro850::host

#endif
