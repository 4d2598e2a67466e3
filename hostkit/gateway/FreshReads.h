#ifndef MICRO850_HOST_GATEWAY_FRESHREADS_H
#define MICRO850_HOST_GATEWAY_FRESHREADS_H

#include "GatewayClient.h"
#include "Project.h"
#include "ValueStore.h"

namespace micro850::host {

/// Reads variables through a gateway that are none of its own, each at its interval.
class FreshReads
{
public:
    /// The arguments must live longer than this object.
    FreshReads(const Project& project, ValueStore& values) : m_project(project), m_values(values) {}

    /// Reads these variables of the project from now on, and no others.
    void begin(const QVector<int>& variables);
    /// Takes what the gateway answered, and asks for what is due.
    void work(GatewayClient& gateway, const QString& line, Duration now);

private:
    /// A part of a variable that one request reads.
    struct Part
    {
        int variable;
        int element; ///< in the tag
        int elements;
        Duration dueAt;
        qint64 request = 0; ///< that waits for its answer; 0: none
    };
    void take(GatewayClient& gateway, Part& part, Duration now);
    void store(const Part& part, const GatewayClient::Reply& reply, Duration now);

    const Project& m_project;
    ValueStore& m_values;
    QVector<Part> m_parts;
    int m_open = 0; ///< requests without an answer
    int m_next = 0; ///< the part that is looked at first, so that all get their turn
};

} // namespace micro850::host

#endif
