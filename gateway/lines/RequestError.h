#ifndef MICRO850_GATEWAY_LINES_REQUESTERROR_H
#define MICRO850_GATEWAY_LINES_REQUESTERROR_H

#include "Message.h"

#include <stdexcept>

namespace micro850::gateway {

namespace errorcode = host::errorcode;

/// Why a request is not carried out: the code and the text of an error of the protocol.
class RequestError : public std::runtime_error
{
public:
    RequestError(const char* code, const std::string& text) : std::runtime_error(text), m_code(code)
    {
    }

    const char* code() const { return m_code; }

private:
    const char* m_code;
};

} // namespace micro850::gateway

#endif
