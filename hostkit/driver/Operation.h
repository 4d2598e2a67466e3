#ifndef MICRO850_HOST_OPERATION_H
#define MICRO850_HOST_OPERATION_H

#include "TagDirectory.h"

#include <QtCore/QByteArray>

namespace micro850::host {

/// A read or write that is done once.
struct Operation
{
    enum class Kind {
        Learn, ///< reads a tag's first element, which tells its type
        Read,
        Write
    };
    enum class State {
        Waiting, ///< not handed to the driver yet
        Queued,  ///< in the driver's list
        Done,
        Refused, ///< by the controller
        Failed   ///< no answer
    };
    int id = 0;
    Kind kind = Kind::Read;
    State state = State::Waiting;
    TagKey tag;
    int element = 0;
    int elements = 1;
    QByteArray value;  ///< of a write: one element, in the controller's order
    QByteArray result; ///< of a read: value bytes, in the controller's order
    QString error;
    int variable = -1; ///< that the operation reads once, -1 for none
    int attempts = 0;
    /// Kept until its owner takes it; else it is forgotten when it ends.
    bool awaited = false;

    bool finished() const { return state != State::Waiting && state != State::Queued; }
};

} // namespace micro850::host

#endif
