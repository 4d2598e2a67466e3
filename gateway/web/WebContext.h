#ifndef MICRO850_GATEWAY_WEB_WEBCONTEXT_H
#define MICRO850_GATEWAY_WEB_WEBCONTEXT_H

#include "ValueTexts.h"
#include "WebService.h"

namespace micro850::gateway {

/// What the parts of the web service share.
struct WebContext : WebNeeds
{
    // cppcheck-suppress uninitDerivedMemberVar
    explicit WebContext(const WebNeeds& needs) : WebNeeds(needs) { texts.reset(); }
    WebContext(const WebContext&) = delete;
    WebContext& operator=(const WebContext&) = delete;

    VariableIndex index{lines};
    ValueTexts texts{index};
    WebSettings settings;
};

} // namespace micro850::gateway

#endif
