#ifndef MICRO850_HOST_OPERATION_H
#define MICRO850_HOST_OPERATION_H

#include "Failure.h"
#include "TagKey.h"

#include <QtCore/QByteArray>

namespace micro850::host {

/// A read or write that is carried out once.
struct Operation
{
    enum class Kind {
        Learn, ///< reads a tag's first element, because the reply shows the tag's type
        Read,
        Write
    };
    enum class State {
        Waiting,  ///< not given to the driver yet
        InDriver, ///< in the driver's list
        Done,
        Refused, ///< by the controller
        Failed   ///< without an answer to it; `failure` has the cause
    };
    int id = 0; ///< above 0; OperationQueue::add() sets it
    Kind kind = Kind::Read;
    State state = State::Waiting;
    TagKey tag;
    int element = 0;
    int elements = 1;
    QByteArray value;  ///< of a write: one element, in the controller's byte order
    QByteArray result; ///< of a read: value bytes, in the controller's byte order
    QString error;     ///< why it was refused or failed
    Failure failure;   ///< of one that failed
    int variable = -1; ///< the variable that the operation reads, -1 for none or several
    /// It reads a run of the schedule.
    bool timed = false;
    int attempts = 0;
    /// It was sent without an answer, so that nobody knows whether it was carried out.
    bool unanswered = false;
    /// Nobody waits for it any more: the loop takes it back before it is sent.
    bool abandoned = false;
    /// True: the operation is kept after its end until OperationQueue::forget() is called. False:
    /// it is removed when it ends.
    bool awaited = false;

    bool finished() const { return state != State::Waiting && state != State::InDriver; }
};

} // namespace micro850::host

#endif
