#ifndef MICRO850_HOST_SESSION_H
#define MICRO850_HOST_SESSION_H

#include "PollLoop.h"
#include "TagAccess.h"
#include "TagAddress.h"

#include <memory>
#include <optional>

namespace micro850::host {

/// Single reads and writes over a line of this host.
class Session : public TagAccess
{
public:
    Session(const DriverApi& api, Line& line, const Clock& clock, const Project& project);
    /// On a loop that polls: the loop goes on when the session ends, and is stepped while an
    /// outcome is waited for. The arguments must live longer than this object.
    Session(PollLoop& loop, const Project& project);
    /// Ends what finish() has not ended.
    ~Session() override;
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// On a loop of others every function heeds it, and no transaction is interrupted: what was not
    /// sent is taken back.
    void setInterrupt(const std::function<bool()>& interrupt) override;

    const CipType& typeOf(const TagKey& tag) override;
    QVector<QByteArray> read(const TagKey& tag, int element, int elements,
                             const std::function<void(int)>& progress = nullptr) override;
    void requireElements(const TagKey& tag, int element, int elements) override;
    /// Only the controller decides, when it is written.
    void requireAllowed(const TagKey&, int, const QByteArray&) override {}
    void write(const TagKey& tag, int element, const QByteArray& value) override;
    void rest() override { m_loop.exchange().acknowledge(); }
    /// Closes the connection, while the exchange is observed. A loop of others goes on.
    void finish() override;
    Exchange& exchange() { return m_loop.exchange(); }

private:
    Operation run(int id, const QString& what, bool heedsInterrupt = false);
    QVector<QByteArray> readRun(const TagKey& tag, const CipType& type, const Run& part);
    std::optional<QString> refusalOf(const TagKey& tag, int element);
    void throwFirstRefused(const TagKey& tag, int first, int last);

    const Project& m_project;
    std::unique_ptr<PollLoop> m_ownLoop; ///< null for a loop of others
    PollLoop& m_loop;
    std::function<bool()> m_interrupt;
};

} // namespace micro850::host

#endif
