#ifndef MICRO850_GATEWAY_CLIENTS_CLIENTCONTEXT_H
#define MICRO850_GATEWAY_CLIENTS_CLIENTCONTEXT_H

#include "HistorySource.h"
#include "ValueTexts.h"
#include "WriteRules.h"

namespace micro850::gateway {

/// What clients need of the gateway.
struct ClientNeeds
{
    LineService& lines;
    WriteRules& writes;
    HistorySource& history;
    const Clock& clock;
    /// "micro850-gateway 0.1.0"
    QString program;
    /// Reads the configuration again. Throws UserError for one that is wrong.
    std::function<void()> reload;
    /// Who may reload besides root.
    int serviceUid = 0;
    /// The status of the processes that deliver to brokers, by their kind; null: there are none.
    std::function<Json()> delivery = nullptr;
    /// The status of the web server; null: there is none.
    std::function<Json()> web = nullptr;
};

/// The same with what all clients share.
struct ClientContext : ClientNeeds
{
    // cppcheck does not see that copying the needs sets their references.
    // cppcheck-suppress uninitDerivedMemberVar
    explicit ClientContext(const ClientNeeds& needs) : ClientNeeds(needs) { texts.reset(); }
    ClientContext(const ClientContext&) = delete;
    ClientContext& operator=(const ClientContext&) = delete;

    VariableIndex index{lines};
    ValueTexts texts{index};
    Duration startedAt = clock.now();
    /// Lets all clients proceed soon.
    std::function<void()> schedule = [] {};
    int clients = 0;
    qint64 waitingBytes = 0; ///< that all clients leave unread
};

/// The reply to "status" without an id: what the whole gateway does.
Json statusOf(const ClientContext& context);

/// The process at the other end of a socket.
struct Peer
{
    int uid = -1;
    int pid = -1;
    QString program;
};

} // namespace micro850::gateway

#endif
