#ifndef MICRO850_GATEWAY_LINES_ANNOUNCEDLINE_H
#define MICRO850_GATEWAY_LINES_ANNOUNCEDLINE_H

#include "Line.h"

#include <functional>
#include <memory>
#include <utility>

namespace micro850::gateway {

/// A line that says when it is about to be opened: behind a device server that can take longer than
/// a worker may be silent.
class AnnouncedLine : public host::Line
{
public:
    AnnouncedLine(std::unique_ptr<host::Line> line, std::function<void()> announce)
        : m_line(std::move(line)), m_announce(std::move(announce))
    {
    }

    bool open(QString& error) override
    {
        m_announce();
        return m_line->open(error);
    }
    void close() override { m_line->close(); }
    bool isOpen() const override { return m_line->isOpen(); }
    void discardInput() override { m_line->discardInput(); }
    bool send(const QByteArray& bytes) override { return m_line->send(bytes); }
    bool receive(QByteArray& bytes, Duration wait) override { return m_line->receive(bytes, wait); }
    void pause(Duration time) override { m_line->pause(time); }
    bool awaitReturn(Duration time) override { return m_line->awaitReturn(time); }
    bool refusesSettings() const override { return m_line->refusesSettings(); }
    QString lossReason() const override { return m_line->lossReason(); }
    qint64 unaskedBytes() const override { return m_line->unaskedBytes(); }
    Duration transportDelay() const override { return m_line->transportDelay(); }
    host::LowLatency lowLatency() const override { return m_line->lowLatency(); }

private:
    std::unique_ptr<host::Line> m_line;
    std::function<void()> m_announce;
};

} // namespace micro850::gateway

#endif
