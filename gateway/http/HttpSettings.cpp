#include "HttpSettings.h"

namespace micro850::gateway {

bool HttpSettings::operator==(const HttpSettings& other) const
{
    return address == other.address && port == other.port &&
           certificateFile == other.certificateFile && keyFile == other.keyFile &&
           proxies == other.proxies && mostConnections == other.mostConnections &&
           mostPerAddress == other.mostPerAddress && idleLimit == other.idleLimit &&
           headerLimit == other.headerLimit && mostHeaderBytes == other.mostHeaderBytes &&
           mostBodyBytes == other.mostBodyBytes;
}

} // namespace micro850::gateway
