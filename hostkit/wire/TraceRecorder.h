#ifndef MICRO850_HOST_TRACERECORDER_H
#define MICRO850_HOST_TRACERECORDER_H

#include "Exchange.h"
#include "TraceFile.h"
#include "UserError.h"

#include <memory>
#include <optional>
#include <string>

namespace micro850::host {

/// Records the frames and link controls that an exchange sends and receives. A record that cannot
/// be written, such as on a full disk, ends the recording and not the work on the line.
class TraceRecorder
{
public:
    /// An empty path records nothing. A file with content that is not a trace is replaced only if
    /// `replaces`. Throws UserError for a file that cannot be written.
    explicit TraceRecorder(const std::string& path, bool replaces = false);
    /// Reports a failure that popFailure() has not returned and close() has not thrown.
    ~TraceRecorder();
    TraceRecorder(const TraceRecorder&) = delete;
    TraceRecorder& operator=(const TraceRecorder&) = delete;

    /// For Exchange::setObserver(). The observer may live longer than this object. The exchange, if
    /// it is named, tells the station of each frame; it must live as long as the observer.
    Exchange::Observer observer(const Exchange* exchange = nullptr) const;
    /// Why a record could not be written, once; the recording has ended then.
    std::optional<UserError> popFailure();
    /// Ends the file. Throws UserError if it does not have every record.
    void close();

private:
    struct Recording;
    std::shared_ptr<Recording> m_recording;
};

} // namespace micro850::host

#endif
