#ifndef MICRO850_GATEWAY_WEB_VALUESAPI_H
#define MICRO850_GATEWAY_WEB_VALUESAPI_H

#include "Router.h"
#include "WebContext.h"

#include <QtCore/QTimer>

#include <deque>
#include <map>

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

private:
    struct Write
    {
        qint64 number = 0; ///< of the rules
        HttpExchangePointer exchange;
        QByteArray ticket; ///< of a check
    };
    /// Allows one write of what was checked.
    struct Ticket
    {
        QByteArray text;
        quint64 identity; ///< of the variable
        int element;
        Duration until;
    };
    struct Seen;
    void answerValues(const HttpExchangePointer& exchange);
    void answerValue(const HttpExchangePointer& exchange);
    void answerVariables(const HttpExchangePointer& exchange);
    void write(const HttpExchangePointer& exchange, const Caller& caller);
    void refuseWriter(const WriteRequest& request, const Caller& caller, const char* code,
                      const std::string& reason);
    QByteArray newTicket(int variable, int element);
    const char* refusalOf(const WriteRequest& request, const Seen& seen, int variable);
    void finishWrite(qint64 token, const Json& reply);
    void cancelUnwanted();

    WebContext& m_context;
    QTimer m_patience; ///< looks whether writes are still wanted
    std::map<qint64, Write> m_writes;
    std::deque<Ticket> m_tickets; ///< oldest first
    qint64 m_lastToken = 0;
    std::shared_ptr<bool> m_alive = std::make_shared<bool>(true);
};

} // namespace micro850::gateway

#endif
