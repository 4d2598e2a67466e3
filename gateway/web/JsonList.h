#ifndef MICRO850_GATEWAY_WEB_JSONLIST_H
#define MICRO850_GATEWAY_WEB_JSONLIST_H

#include "HttpMessage.h"

namespace micro850::gateway {

/// A list that may be long, as the body of an answer: {"KEY": [...]}.
struct JsonList
{
    QByteArray begin; ///< `{"values":[`
    int size = 0;
    std::function<QByteArray(int)> item; ///< JSON
    /// False when items can no longer be made: then the connection ends without the end of the
    /// list.
    std::function<bool()> isValid = [] { return true; };
};

/// The answer. A short list is its body; a long one is made while the client reads, so that it
/// takes no memory for clients that do not.
HttpResponse listResponse(JsonList list);

} // namespace micro850::gateway

#endif
