#ifndef MICRO850_HOST_TRACERECORDER_H
#define MICRO850_HOST_TRACERECORDER_H

#include "Exchange.h"
#include "TraceFile.h"

#include <memory>

namespace micro850::host {

/// Records the frames and link controls that an exchange sends and receives.
class TraceRecorder
{
public:
    /// An empty path records nothing. Throws UserError for a file that cannot be written.
    explicit TraceRecorder(const QString& path);
    /// For Exchange::setObserver(). The observer may live longer than this object.
    Exchange::Observer observer() const;

private:
    std::shared_ptr<TraceWriter> m_writer;
};

} // namespace micro850::host

#endif
