// How many messages a second go through the queue and the flow of a delivering process, with a
// broker that acknowledges at once: delivery_queue FILE [COUNT]

#include "DeliveryFlow.h"

#include <QtCore/QFile>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

using namespace micro850;
using namespace micro850::gateway;

namespace {

/// A broker at the end of a wire without length.
class InstantBroker : public Outlet
{
public:
    bool send(const QueuedMessage& message, Delivery) override
    {
        m_sent.push_back(message.id);
        return true;
    }
    void acknowledge(DeliveryFlow& flow)
    {
        for (const qint64 id : m_sent)
            flow.acknowledge(id);
        m_sent.clear();
    }

private:
    std::vector<qint64> m_sent;
};

QueuedMessage messageOf(int number)
{
    QueuedMessage message;
    message.line = QStringLiteral("press");
    message.station = 1;
    message.name = QStringLiteral("variable%1").arg(number % 100);
    message.time = 1795352400000 + number;
    message.body = "{\"line\":\"press\",\"name\":\"variable\",\"station\":1,\"type\":\"REAL\","
                   "\"value\":21.5,\"unit\":\"bar\",\"quality\":\"good\",\"time\":1795352400000}";
    return message;
}

class Stage
{
public:
    explicit Stage(const char* name) : m_name(name) {}
    void tell(int count) const
    {
        const double wall =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - m_began).count();
        const double processor = double(std::clock() - m_processor) / CLOCKS_PER_SEC;
        std::printf("%-34s %8.0f messages/s  %6.1f us of the processor for each\n", m_name,
                    count / wall, processor * 1e6 / count);
    }

private:
    const char* m_name;
    std::chrono::steady_clock::time_point m_began = std::chrono::steady_clock::now();
    std::clock_t m_processor = std::clock();
};

void run(const DeliveryQueueSettings& settings, int count)
{
    const SystemClock clock;
    const SystemWallClock wallClock;
    DeliveryQueue queue(settings, clock, wallClock);
    DeliveryFlow flow(queue, settings, clock);
    InstantBroker broker;
    int number = 0;
    const auto feed = [&] {
        ++number;
        flow.add(messageOf(number), {QStringLiteral("run"), number});
    };
    const Stage waiting("into the queue");
    while (number < count) {
        feed();
        if (number % 100 == 0)
            flow.tick();
    }
    flow.tick();
    waiting.tell(count);

    const Stage history("out of the queue as history");
    flow.begin(broker);
    const auto waits = [&queue] { return queue.size() != 0; };
    while (waits()) {
        flow.tick();
        broker.acknowledge(flow);
    }
    history.tell(count);

    const Stage live("through the queue, live");
    while (number < 2 * count || waits()) {
        for (int i = 0; i < 100 && number < 2 * count; ++i)
            feed();
        flow.tick();
        broker.acknowledge(flow);
    }
    live.tell(count);
    std::printf("%s\n", flow.status().dump().c_str());
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2 || QFile::exists(QFile::decodeName(argv[1]))) {
        std::fprintf(stderr, "Usage: delivery_queue NEW-FILE [COUNT]\n");
        return 2;
    }
    DeliveryQueueSettings settings;
    settings.file = QFile::decodeName(argv[1]);
    settings.historyPerSecond = 1000000000;
    run(settings, argc > 2 ? static_cast<int>(std::strtol(argv[2], nullptr, 10)) : 50000);
    return 0;
}
