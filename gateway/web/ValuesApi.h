#ifndef MICRO850_GATEWAY_WEB_VALUESAPI_H
#define MICRO850_GATEWAY_WEB_VALUESAPI_H

#include "Router.h"
#include "WebContext.h"
#include "WriteTickets.h"

#include <QtCore/QTimer>

#include <map>
#include <optional>

namespace micro850::gateway {

/// The values and the variables for programs, and writing.
class ValuesApi
{
public:
    explicit ValuesApi(WebContext& context);
    /// Takes back what was not sent to a controller.
    ~ValuesApi();
    ValuesApi(const ValuesApi&) = delete;
    ValuesApi& operator=(const ValuesApi&) = delete;

    void addRoutes(Router& router);
    /// Answers the writes that began until then: those that were not sent are taken back, of the
    /// others nobody knows yet.
    void giveUp(Duration begunUntil = Duration::max());

private:
    struct Write
    {
        qint64 number = 0; ///< of the rules
        HttpExchangePointer exchange;
        Duration begun{0};
        bool isCheck = false;
        WriteTickets::Write allowed; ///< by the ticket of a check
    };
    struct Refusal
    {
        int status;
        const char* code;
        std::string reason;
    };
    struct Seen;
    void answerValues(const HttpExchangePointer& exchange);
    void answerValue(const HttpExchangePointer& exchange);
    void answerVariables(const HttpExchangePointer& exchange);
    void write(const HttpExchangePointer& exchange, const Caller& caller);
    std::optional<int> variableOf(const WriteRequest& request) const;
    void refuseWriter(const WriteRequest& request, const Caller& caller, const Refusal& refusal);
    std::optional<Refusal> refusalOf(const WriteRequest& request, const Seen& seen,
                                     const Caller& caller);
    std::optional<Refusal> refusalOfVariable(const WriteRequest& request, const Seen& seen,
                                             const Caller& caller) const;
    std::optional<Refusal> refusalOfTicket(const QByteArray& ticket,
                                           const WriteTickets::Write& wanted);
    WriteTickets::Write wantedWrite(const WriteRequest& request, const Caller& caller) const;
    void finishWrite(qint64 token, const Json& reply);
    void cancelUnwanted();

    WebContext& m_context;
    QTimer m_patience; ///< looks whether writes are still wanted
    std::map<qint64, Write> m_writes;
    WriteTickets m_tickets;
    qint64 m_lastToken = 0;
    std::shared_ptr<bool> m_alive = std::make_shared<bool>(true);
};

} // namespace micro850::gateway

#endif
