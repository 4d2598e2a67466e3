#ifndef MICRO850_SIMULATOR_REPLAY_H
#define MICRO850_SIMULATOR_REPLAY_H

#include "Bytes.h"
#include "Trace.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace micro850::sim {

/// Answers requests as a recorded controller did. A request is known by what it asks for; its
/// transaction number and sequence byte go into the recorded reply. What was asked several times
/// gets the recorded replies in their order, and then again from the first.
class Replay
{
public:
    /// Throws UserError if no request of the trace has a reply; `name` stands for the file.
    Replay(const std::vector<TraceRecord>& trace, const std::string& name);

    /// The reply's data for the data of a message; nothing for a request that was never answered.
    std::optional<Bytes> answer(const Bytes& message);
    /// Requests with different content that can be answered.
    std::size_t size() const { return m_replies.size(); }

private:
    struct Recorded
    {
        std::vector<Bytes> replies;
        std::size_t next = 0;
    };

    std::map<Bytes, Recorded> m_replies; ///< by what is asked
};

} // namespace micro850::sim

#endif
