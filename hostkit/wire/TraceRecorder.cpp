#include "TraceRecorder.h"

#include "FrameText.h"

#include <algorithm>
#include <utility>

namespace micro850::host {

struct TraceRecorder::Recording
{
    std::unique_ptr<TraceWriter> writer; ///< null after the end or a failure
    std::optional<UserError> failure;    ///< until it is reported

    template<typename Action> void attempt(Action action)
    {
        if (!writer)
            return;
        try {
            action(*writer);
        } catch (const UserError& error) {
            failure = error;
            writer.reset();
        }
    }
};

TraceRecorder::TraceRecorder(const std::string& path, bool replaces)
{
    if (path.empty())
        return;
    m_recording = std::make_shared<Recording>();
    m_recording->writer = TraceWriter::open(path, replaces);
}

TraceRecorder::~TraceRecorder()
{
    if (m_recording && m_recording->failure)
        qWarning("%s", m_recording->failure->what());
}

Exchange::Observer TraceRecorder::observer(const Exchange* exchange) const
{
    if (!m_recording)
        return nullptr;
    const std::shared_ptr<Recording> recording = m_recording;
    return [recording, exchange](Exchange::Direction direction, const QByteArray& frame, Duration) {
        const auto now = std::chrono::duration_cast<std::chrono::microseconds>(
            std::chrono::system_clock::now().time_since_epoch());
        TraceRecord record;
        record.time = std::max(now, std::chrono::microseconds(0));
        record.direction =
            direction == Exchange::Direction::Out ? Direction::Sent : Direction::Received;
        record.bytes.assign(frame.begin(), frame.end());
        record.station = exchange ? exchange->station() : -1;
        record.note = frameText(frame).toStdString();
        recording->attempt([&record](TraceWriter& writer) { writer.write(record); });
    };
}

std::optional<UserError> TraceRecorder::popFailure()
{
    return m_recording ? std::exchange(m_recording->failure, std::nullopt) : std::nullopt;
}

void TraceRecorder::close()
{
    if (m_recording) {
        m_recording->attempt([](TraceWriter& writer) { writer.close(); });
        m_recording->writer.reset();
    }
    if (const std::optional<UserError> failure = popFailure())
        throw UserError(*failure);
}

} // namespace micro850::host
