#ifndef MICRO850_GATEWAY_LINES_WRITERULES_H
#define MICRO850_GATEWAY_LINES_WRITERULES_H

#include "Clock.h"
#include "JsonFile.h"
#include "VariableIndex.h"
#include "WallClock.h"

#include <QtCore/QMap>

#include <deque>
#include <optional>

namespace micro850::gateway {

/// The outcome in the journal of a request that only asks, and is refused: nobody wanted to write.
constexpr const char* kCheckFailed = "check-failed";

/// A new value as the journal keeps it, also of what is refused: one that is longer than any value
/// of a controller is cut.
Json journalValue(const Json& value);

/// Who writes.
struct Writer
{
    int uid = -1;
    int pid = -1;
    QString client; ///< the name that the client gave, or that of its program
};

/// What is to be written: an element of a variable, or of a tag.
struct WriteRequest
{
    QString line; ///< empty: the only one that fits
    QString name; ///< empty: the tag
    int station = 1;
    QString tag;
    int element = 0; ///< within the variable, or of the tag
    Json value;      ///< as the variable shows it; of `bytes` null
    /// One element in the controller's byte order.
    std::optional<QByteArray> bytes;
    /// Only asks whether it is allowed; nothing is sent.
    bool check = false;

    /// The keys of a request of the protocol. Throws UserError, which names the key.
    static WriteRequest fromMessage(const JsonNode& message);
};

/// Decides on every write, whoever asks for it: only variables that the project declares writable
/// are written, within their limits, and so often as it allows. Everything else is refused with the
/// reason. Each attempt is reported to the listeners of the lines, also a check that fails,
/// which has an outcome of its own.
class WriteRules : public LineListener
{
public:
    /// All must outlive it.
    WriteRules(LineService& lines, const Clock& clock, const WallClock& wallClock);
    /// What still waits is never answered.
    ~WriteRules() override;
    WriteRules(const WriteRules&) = delete;
    WriteRules& operator=(const WriteRules&) = delete;

    /// The reply of the protocol, without an id.
    using Answer = std::function<void(const Json& reply)>;
    /// `answer` is called once: when the write is refused before this returns, otherwise when its
    /// outcome is known. Of a check it is "allowed". Returns a number for cancel().
    qint64 write(const Writer& writer, const WriteRequest& request, const Answer& answer);
    /// Takes the write back unless it was sent to the controller. It is still answered.
    void cancel(qint64 number);

    void handleReload() override;

    /// More writes of a line do not wait.
    static constexpr int kMostWaiting = 256;

private:
    struct Pending;
    struct Target;
    using Key = QPair<QString, QString>; ///< of a variable: line and name

    void begin(qint64 number, const CipType* told);
    void send(qint64 number, const Target& target, const CipType& type);
    void askForType(qint64 number, const Target& target);
    void requireOneScale(const WriteRequest& request, const Target& target) const;
    void requireRoom(const Pending& pending) const;
    Target targetOf(const WriteRequest& request) const;
    void requireRate(const Target& target);
    void countWrite(const Target& target);
    void finish(qint64 number, const Json& reply);
    JournalEntry entryOf(const Pending& pending, const Json& reply) const;
    void removeOldTimes(Duration now);

    LineService& m_lines;
    const Clock& m_clock;
    const WallClock& m_wallClock;
    VariableIndex m_index;
    QMap<qint64, Pending> m_pending;
    QMap<Key, std::deque<Duration>> m_times; ///< of the writes of the last minute
    qint64 m_last = 0;
    std::shared_ptr<bool> m_alive = std::make_shared<bool>(true);
};

} // namespace micro850::gateway

#endif
