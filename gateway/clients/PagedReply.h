#ifndef MICRO850_GATEWAY_CLIENTS_PAGEDREPLY_H
#define MICRO850_GATEWAY_CLIENTS_PAGEDREPLY_H

#include "Json.h"

#include <QtCore/QByteArray>

#include <functional>

namespace micro850::gateway {

/// A reply with a list, of which a line is made whenever the client has read the one before.
struct PagedReply
{
    host::Json id;
    const char* reply = "";
    const char* key = ""; ///< of the list
    int size = 0;
    std::function<QByteArray(int)> item; ///< JSON
    host::Json last;                     ///< further keys of the last line
    /// It is about variables by their numbers, which a reload changes.
    bool isNumbered = false;
    int taken = 0;
    bool done = false;

    /// The next line, of about so many bytes.
    QByteArray take(int most);
};

} // namespace micro850::gateway

#endif
