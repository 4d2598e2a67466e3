#ifndef MICRO850_TESTS_CONNECTION_OWNER_H
#define MICRO850_TESTS_CONNECTION_OWNER_H

#include "MqttConnection.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QMap>
#include <QtCore/QStringList>
#include <QtCore/QVector>

#include <chrono>
#include <functional>

/// Keeps what a connection tells, and runs its event loop.
class ConnectionOwner : public micro850::gateway::MqttConnection::Owner
{
public:
    using MqttMessage = micro850::gateway::MqttMessage;

    MqttMessage will() override
    {
        ++wills;
        return nextWill;
    }
    void handleConnected() override { ++connections; }
    void handleDisconnected(const QString& reason) override { reasons.append(reason); }
    void handleAcknowledged(int token) override { acknowledged.append(token); }
    void handleRefused(int token, const QString& reason) override { refused[token] = reason; }
    void handleMessage(const MqttMessage& message) override { messages.append(message); }
    void handlePong(int number) override { pongs.append(number); }

    /// Runs the event loop until `done`; false after `limit`.
    template<typename Connection>
    static bool run(Connection& connection, const std::function<bool()>& done,
                    std::chrono::seconds limit = std::chrono::seconds(30))
    {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (!done()) {
            if (std::chrono::steady_clock::now() >= end)
                return false;
            connection.tick();
            QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        }
        return true;
    }

    MqttMessage nextWill;
    int wills = 0;
    int connections = 0;
    QStringList reasons;
    QVector<int> acknowledged;
    QMap<int, QString> refused;
    QVector<MqttMessage> messages;
    QVector<int> pongs;
};

#endif
