#include "Failure.h"

#include "FrameText.h"

namespace micro850::host {

namespace {

QString remedyFor(const Reply& reply)
{
    const quint16 inUse = 0x0100;
    const quint16 outOfConnections = 0x0113;
    if (reply.extendedStatus.startsWith(outOfConnections)) {
        return QStringLiteral("end other programs that are connected; a connection that was not "
                              "closed ends after 32 seconds");
    }
    if (reply.extendedStatus.startsWith(inUse))
        return QStringLiteral("another program has it; try again");
    return QString();
}

} // namespace

Failure noReply(Heard heard, bool setsSpeed)
{
    const QString speed =
        setsSpeed ? QStringLiteral("speed") : QStringLiteral("the speed set at the server");
    switch (heard) {
    case Heard::LateReplies:
        return {Failure::Cause::Silence, QStringLiteral("replies come later than the time-out"),
                QStringLiteral("set a longer one with --timeout or timeoutMs")};
    case Heard::Garbage:
        return {Failure::Cause::Garbage, QStringLiteral("bytes came, but no intact reply"),
                QStringLiteral("check %1; is it another protocol?").arg(speed)};
    default:
        return {Failure::Cause::Silence, QStringLiteral("no answer"),
                QStringLiteral("check cable and %1").arg(speed)};
    }
}

Failure refusedConnection(const Reply& reply)
{
    return {Failure::Cause::Refusal,
            QStringLiteral("the controller refuses the connection: ") + statusPhrase(reply),
            remedyFor(reply)};
}

Failure lostConnection(const Reply& reply)
{
    return {Failure::Cause::Refusal,
            QStringLiteral("the controller gives up the connection again and again: ") +
                statusPhrase(reply),
            QString()};
}

Failure lostReply()
{
    return {Failure::Cause::Silence,
            QStringLiteral("no answer, and then the controller did not know the connection any "
                           "more"),
            QString()};
}

Failure lostLine(const QString& why)
{
    return {Failure::Cause::Silence, QStringLiteral("the line went down before the answer: ") + why,
            QString()};
}

Failure unusableReply()
{
    return {Failure::Cause::Garbage,
            QStringLiteral("the controller answers, but the driver cannot use its answer"),
            QString()};
}

Failure disabledStation(int station)
{
    return {Failure::Cause::Disabled, QStringLiteral("station %1 is disabled").arg(station),
            QStringLiteral("enable it in the project")};
}

} // namespace micro850::host
