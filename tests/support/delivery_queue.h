#ifndef MICRO850_TESTS_DELIVERY_QUEUE_H
#define MICRO850_TESTS_DELIVERY_QUEUE_H

#include "DeliveryFlow.h"
#include "WallClock.h"

#include <QtCore/QFileInfo>
#include <QtCore/QTemporaryDir>

#include <gtest/gtest.h>

#include <string>
#include <vector>

/// A message that was sent, and how.
struct SentMessage
{
    micro850::gateway::QueuedMessage message;
    micro850::gateway::Delivery delivery;
};

/// Notes what a flow sends.
class TestOutlet : public micro850::gateway::Outlet
{
public:
    bool send(const micro850::gateway::QueuedMessage& message,
              micro850::gateway::Delivery delivery) override
    {
        if (room == 0)
            return false;
        --room;
        sent.push_back({message, delivery});
        return true;
    }
    /// "LIVE b=2, HISTORY a=1", and forgets it.
    std::string popText()
    {
        std::string text;
        for (const SentMessage& each : sent) {
            const char* const how[] = {"LIVE ", "HISTORY ", "REPEATED "};
            text += (text.empty() ? "" : ", ") + std::string(how[static_cast<int>(each.delivery)]) +
                    each.message.name.toStdString() + "=" + each.message.body.toStdString();
        }
        sent.clear();
        return text;
    }

    std::vector<SentMessage> sent;
    int room = 1000000000; ///< it takes so many more
};

/// A folder for a queue, and clocks that stand.
class DeliveryQueueFixture : public ::testing::Test
{
protected:
    DeliveryQueueFixture() { m_settings.file = m_dir.filePath(QStringLiteral("queue.sqlite")); }

    static micro850::gateway::QueuedMessage messageOf(const QString& name, const QByteArray& body,
                                                      const QString& line = QStringLiteral("press"))
    {
        micro850::gateway::QueuedMessage message;
        message.line = line;
        message.station = 1;
        message.name = name;
        message.time = 1795352400000; // 2026-11-22T13:00:00Z
        message.body = body;
        return message;
    }

    // In memory where there is such a folder: a test commits often.
    QTemporaryDir m_dir{QFileInfo("/dev/shm").isWritable() ? "/dev/shm/queue-XXXXXX"
                                                           : "queue-XXXXXX"};
    micro850::gateway::DeliveryQueueSettings m_settings;
    micro850::VirtualClock m_clock;
    micro850::gateway::SettableWallClock m_wallClock{1795352400000};
};

#endif
