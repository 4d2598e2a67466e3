#ifndef MICRO850_HOST_TRACEFILE_H
#define MICRO850_HOST_TRACEFILE_H

#include "Exchange.h"
#include "Trace.h"

#include <memory>

namespace micro850::host {

/// Records what an exchange sends and receives.
class TraceFile
{
public:
    /// No path: records nothing. Throws UserError for a file that cannot be written.
    explicit TraceFile(const QString& path);
    /// For Exchange::setObserver(); may outlive this object.
    Exchange::Observer observer() const;

private:
    std::shared_ptr<TraceWriter> m_writer;
};

/// "NAK: not received intact".
QString controlText(ReplyCollector::Kind kind);
/// "read Level[3] x1", "open connection".
QString requestText(const Request& request);
/// One line that says what a complete frame asks for or answers, or which link control it is.
QString frameText(const QByteArray& frame);

} // namespace micro850::host

#endif
