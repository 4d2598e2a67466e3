#ifndef MICRO850_GATEWAY_WEB_WEBCONTEXT_H
#define MICRO850_GATEWAY_WEB_WEBCONTEXT_H

#include "WebNeeds.h"
#include "WebSettings.h"
#include "WebValues.h"

#include <functional>

namespace micro850::gateway {

/// What the parts of the web service share.
struct WebContext : WebNeeds
{
    // cppcheck-suppress uninitDerivedMemberVar
    explicit WebContext(const WebNeeds& needs) : WebNeeds(needs) {}
    WebContext(const WebContext&) = delete;
    WebContext& operator=(const WebContext&) = delete;

    VariableIndex index{lines};
    WebValues values{lines, index};
    WebSettings settings;
    /// Counts how often the numbers of the variables changed.
    int generation = 0;
    /// The id after which a stream of events goes on from now on, for a minute.
    std::function<QByteArray()> lastEvent;
};

} // namespace micro850::gateway

#endif
