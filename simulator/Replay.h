#ifndef MICRO850_SIMULATOR_REPLAY_H
#define MICRO850_SIMULATOR_REPLAY_H

#include "Bytes.h"
#include "TraceFile.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace micro850::sim {

/// Answers requests as a recorded controller did. A request is recognised by its content; its
/// transaction number and sequence byte are copied into the recorded reply. A request that was
/// recorded several times gets the recorded replies in their order, then starts again at the first.
class Replay
{
public:
    /// Throws UserError if no request of the trace has a reply; the message calls the file `name`.
    Replay(const std::vector<TraceRecord>& trace, const std::string& name);

    /// Returns the data of the reply to a message's data, or nothing if none was recorded.
    std::optional<Bytes> answer(const Bytes& message);
    /// Number of different requests that have an answer.
    std::size_t size() const { return m_replies.size(); }

private:
    struct Recorded
    {
        std::vector<Bytes> replies;
        std::size_t next = 0;
    };

    std::map<Bytes, Recorded> m_replies; ///< by the request's content
};

} // namespace micro850::sim

#endif
