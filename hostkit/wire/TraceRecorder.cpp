#include "TraceRecorder.h"

#include "FrameText.h"
#include "UserError.h"

#include <stdexcept>

namespace micro850::host {

TraceRecorder::TraceRecorder(const QString& path)
{
    if (path.isEmpty())
        return;
    try {
        m_writer = TraceWriter::open(path.toStdString());
    } catch (const std::runtime_error& error) {
        throw UserError(error.what());
    }
}

Exchange::Observer TraceRecorder::observer() const
{
    if (!m_writer)
        return nullptr;
    const std::shared_ptr<TraceWriter> writer = m_writer;
    return [writer](Exchange::Direction direction, const QByteArray& frame, Duration) {
        TraceRecord record;
        record.time = std::chrono::duration_cast<std::chrono::microseconds>(
            std::chrono::system_clock::now().time_since_epoch());
        record.direction =
            direction == Exchange::Direction::Out ? Direction::Sent : Direction::Received;
        record.bytes.assign(frame.begin(), frame.end());
        record.note = frameText(frame).toStdString();
        writer->write(record);
    };
}

} // namespace micro850::host
