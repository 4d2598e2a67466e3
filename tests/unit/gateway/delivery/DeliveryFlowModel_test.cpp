// The flow against a simple model: a service that feeds, a broker that keeps all, and a world in
// which connections are cut, processes are killed and disks refuse at any moment.

#include "crash_disk.h"
#include "delivery_queue.h"

#include <QtCore/QFile>

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <deque>
#include <map>
#include <set>
#include <tuple>

using namespace micro850;
using namespace micro850::gateway;

namespace {

const char* const kDisk = "model-disk";
const char* const kLines[] = {"press", "oven"};
const char* const kNames[] = {"a", "b", "c"};

/// What the world does next.
struct Step
{
    enum Kind {
        Feed,
        Pass,
        Connect,
        Cut,
        Acknowledge,
        Kill,
        DiskRefuses,
        DiskIsBack,
        SetClock,
        Fill
    };
    Kind kind;
    int amount;
};

void showValue(const Step& step, std::ostream& to)
{
    static const char* const kinds[] = {"feed",        "pass", "connect",      "cut",
                                        "acknowledge", "kill", "disk refuses", "disk is back",
                                        "set clock",   "fill"};
    to << kinds[step.kind] << ' ' << step.amount;
}

/// All of it. Values are numbers from 1 on, each fed once.
class World : public Outlet
{
public:
    World(const DeliveryQueueSettings& settings, bool withFaults)
        : m_settings(settings), m_withFaults(withFaults), m_disk(kDisk)
    {
        m_disk.forgetSteps();
        start();
    }

    void take(const Step& step)
    {
        switch (step.kind) {
        case Step::Feed:
            feed(step.amount);
            break;
        case Step::Pass:
            pass(std::chrono::milliseconds(50 * step.amount));
            break;
        case Step::Connect:
            connect();
            break;
        case Step::Cut:
            cut();
            break;
        case Step::Acknowledge:
            acknowledge(step.amount);
            break;
        case Step::Kill:
            kill();
            break;
        case Step::DiskRefuses:
            if (m_withFaults)
                m_disk.failCalls(step.amount, -1);
            break;
        case Step::DiskIsBack:
            m_disk.succeed();
            break;
        case Step::SetClock:
            m_wallClock.advance((step.amount - 50) * qint64(100000));
            break;
        case Step::Fill:
            m_room = step.amount;
            break;
        }
        m_flow->tick(); // the service is not told: the process may be killed before
        noteDisk();
        checkWindow();
    }
    /// The broker stays, the disk too: everything arrives.
    void settle()
    {
        m_disk.succeed();
        m_room = -1;
        cut();
        connect();
        for (int i = 0; i < 4000 && !isSettled(); ++i) {
            acknowledge(1000000);
            pass(std::chrono::milliseconds(200));
        }
        RC_ASSERT(m_queue->size() == 0);
        RC_ASSERT(m_queue->lost() == 0); // what dies with the memory of a process nobody counts
        RC_ASSERT(m_queue->status()["state"] == "on disk");
    }
    /// Nothing is missing, each number names one value, and there is no gap in the numbers.
    void checkReceived() const
    {
        for (int value = 1; value <= m_lastValue; ++value) {
            if (m_mayBeLost.count(value) == 0)
                RC_ASSERT(m_received.count(value) == 1);
        }
        for (const auto& [series, numbers] : m_numbers) {
            if (m_seriesWithLoss.count(series.first) == 0)
                RC_ASSERT(*numbers.rbegin() == static_cast<qint64>(numbers.size()));
            RC_ASSERT(*numbers.begin() >= 1);
        }
    }
    /// What a late subscriber gets: the latest value of each variable.
    void checkRetained() const
    {
        for (const auto& [name, value] : m_latestFed) {
            const auto shown = m_retained.find(name);
            RC_ASSERT(shown != m_retained.end());
            RC_ASSERT(shown->second == value);
        }
    }

    bool send(const QueuedMessage& message, Delivery delivery) override
    {
        if (m_room == 0)
            return false;
        m_room -= m_room > 0 ? 1 : 0;
        const int value = message.body.toInt();
        const std::string name = (message.line + "/" + message.name).toStdString();
        checkNumber(message, value);
        checkOrder(name, value, delivery);
        if (delivery == Delivery::Repeated) {
            if (message.sequence > 0)
                RC_ASSERT(m_received.count(value) == 1);
            m_sent.push_back({message.id, 0});
            return true;
        }
        // Again only when the broker's acknowledgement was not on the disk.
        if (!m_received.insert(value).second) {
            const auto allowed = m_uncertain.find(value);
            RC_ASSERT(allowed != m_uncertain.end());
            m_uncertain.erase(allowed);
        }
        m_sent.push_back({message.id, value});
        return true;
    }

private:
    struct Sent
    {
        qint64 id;
        int value; ///< 0: repeated
    };

    void start()
    {
        m_queue = std::make_unique<DeliveryQueue>(m_settings, m_clock, m_wallClock, kDisk);
        m_flow = std::make_unique<DeliveryFlow>(*m_queue, m_settings, m_clock);
        // The service feeds again what this process does not have, as far as it holds it.
        const DeliveryQueue::Fed fed = m_queue->fed();
        const int last = fed.run == "run" ? static_cast<int>(fed.number) : 0;
        RC_ASSERT(m_withFaults || last >= m_kept);
        for (int value = std::max(last, m_kept) + 1; value <= m_lastValue; ++value)
            add(value);
        for (const auto& [name, value] : m_latestFed)
            m_flow->remember(messageOf(value));
    }
    QueuedMessage messageOf(int value) const
    {
        QueuedMessage message;
        message.line = kLines[value % 2];
        message.name = kNames[value / 2 % 3];
        message.station = 1;
        message.time = value;
        message.body = QByteArray::number(value);
        return message;
    }
    void add(int value) { m_flow->add(messageOf(value), {"run", value}); }
    void feed(int count)
    {
        for (int i = 0; i < count; ++i) {
            const QueuedMessage message = messageOf(++m_lastValue);
            m_latestFed[(message.line + "/" + message.name).toStdString()] = m_lastValue;
            add(m_lastValue);
        }
    }
    void pass(std::chrono::milliseconds time)
    {
        for (std::chrono::milliseconds done(0); done <= time; done += std::chrono::milliseconds(50))
        {
            m_clock.advance(std::chrono::milliseconds(50));
            m_wallClock.advance(50);
            m_kept = std::max(m_kept, static_cast<int>(m_flow->tick().number));
            noteDisk();
            checkWindow();
        }
    }
    void connect()
    {
        if (m_connected)
            return;
        m_connected = true;
        m_shown.clear();
        m_liveOf.clear();
        m_historyOf.clear();
        m_flow->begin(*this);
    }
    void cut()
    {
        if (!m_connected)
            return;
        m_connected = false;
        m_flow->end();
        for (const Sent& each : m_sent)
            m_uncertain.insert(each.value);
        m_sent.clear();
    }
    void acknowledge(int count)
    {
        for (; count > 0 && !m_sent.empty(); --count) {
            // A broker may answer in any order.
            const std::size_t which = count % 3 == 0 ? m_sent.size() - 1 : 0;
            const Sent sent = m_sent[which];
            m_sent.erase(m_sent.begin() + static_cast<long>(which));
            m_flow->acknowledge(sent.id);
            if (sent.value != 0)
                m_acknowledged.push_back(sent.value);
        }
    }
    /// What is in memory is gone; what was not fed into the disk is fed again.
    void kill()
    {
        noteDisk();
        const bool refused = m_queue->status()["state"] == "in memory";
        RC_ASSERT(m_withFaults ||
                  m_sent.size() + m_acknowledged.size() <= std::size_t(DeliveryFlow::kWindow));
        cut();
        m_uncertain.insert(m_acknowledged.begin(), m_acknowledged.end());
        m_acknowledged.clear();
        for (int value = 1; refused && value <= m_kept; ++value) {
            if (m_received.count(value) == 0)
                m_mayBeLost.insert(value);
        }
        for (const auto& [series, numbers] : m_numbers) {
            if (refused)
                m_seriesWithLoss.insert(series.first);
        }
        // A disk that refuses at the start does not tell what it has: such a value is fed again and
        // sent from memory, and sent from the disk when that is back.
        for (int value = m_kept + 1; m_withFaults && value <= m_lastValue; ++value)
            m_uncertain.insert(value);
        m_flow.reset();
        m_queue.reset();
        start();
    }
    void noteDisk()
    {
        if (m_queue->removing() == 0 && m_queue->status()["state"] == "on disk")
            m_acknowledged.clear();
    }
    void checkWindow() const
    {
        const int inFlight = m_flow->status()["inFlight"];
        RC_ASSERT(inFlight == static_cast<int>(m_sent.size()));
        RC_ASSERT(inFlight <= DeliveryFlow::kWindow);
        if (!m_withFaults)
            RC_ASSERT(inFlight + m_queue->removing() <= DeliveryFlow::kWindow);
    }
    void checkNumber(const QueuedMessage& message, int value)
    {
        if (message.sequence == 0)
            return; // only remembered
        const auto number = std::make_tuple(message.series, message.line, message.sequence);
        const auto known = m_values.emplace(number, value).first;
        RC_ASSERT(known->second == value);
        m_numbers[{message.series, message.line}].insert(message.sequence);
    }
    void checkOrder(const std::string& name, int value, Delivery delivery)
    {
        if (delivery == Delivery::History) {
            // In order, unless messages of an earlier time came back with the disk.
            int& last = m_historyOf[name];
            RC_ASSERT(value > last || m_withFaults);
            last = value;
            RC_ASSERT(m_shown.count(name) == 1);
            return;
        }
        m_shown.insert(name);
        int& live = m_liveOf[name];
        RC_ASSERT(value >= live || m_withFaults);
        live = value;
        m_retained[name] = value;
    }
    bool isSettled() const
    {
        return m_sent.empty() && m_queue->size() == 0 && !m_queue->hasChanges() &&
               m_queue->status()["state"] == "on disk";
    }

    const DeliveryQueueSettings m_settings;
    const bool m_withFaults;
    CrashDisk m_disk;
    VirtualClock m_clock;
    SettableWallClock m_wallClock{1795352400000};
    std::unique_ptr<DeliveryQueue> m_queue;
    std::unique_ptr<DeliveryFlow> m_flow;

    // The service.
    int m_lastValue = 0;
    int m_kept = 0; ///< it holds what comes after
    std::map<std::string, int> m_latestFed;

    // The network and the broker.
    bool m_connected = false;
    int m_room = -1; ///< messages that the connection takes; below 0: all
    std::deque<Sent> m_sent;
    std::vector<int> m_acknowledged; ///< since all deletions were on the disk
    std::set<int> m_received;
    std::map<std::tuple<qint64, QString, qint64>, int> m_values;
    std::map<std::pair<qint64, QString>, std::set<qint64>> m_numbers;
    std::map<std::string, int> m_retained;
    std::set<std::string> m_shown; ///< in this connection
    std::map<std::string, int> m_liveOf;
    std::map<std::string, int> m_historyOf;

    // What may happen.
    std::multiset<int> m_uncertain; ///< may come again, each so often
    std::set<int> m_mayBeLost;      ///< was in memory when the process was killed
    std::set<qint64> m_seriesWithLoss;
};

rc::Gen<std::vector<Step>> steps()
{
    const auto step = [](Step::Kind kind, int most) {
        return rc::gen::map(rc::gen::inRange(0, most), [kind](int amount) {
            return Step{kind, amount};
        });
    };
    const auto any = rc::gen::weightedOneOf<Step>({{8, step(Step::Feed, 60)},
                                                   {2, step(Step::Feed, 800)},
                                                   {8, step(Step::Pass, 40)},
                                                   {1, step(Step::Pass, 250)},
                                                   {5, step(Step::Connect, 1)},
                                                   {2, step(Step::Cut, 1)},
                                                   {6, step(Step::Acknowledge, 300)},
                                                   {2, step(Step::Acknowledge, 3000)},
                                                   {2, step(Step::Kill, 1)},
                                                   {1, step(Step::DiskRefuses, 20)},
                                                   {2, step(Step::DiskIsBack, 1)},
                                                   {1, step(Step::SetClock, 100)},
                                                   {1, step(Step::Fill, 200)}});
    return rc::gen::resize(60, rc::gen::container<std::vector<Step>>(any));
}

void live(const std::vector<Step>& life, const DeliveryQueueSettings& settings, bool withFaults)
{
    for (const char* part : {"", "-wal", "-shm", ".lock"})
        QFile::remove(settings.file + part);
    World world(settings, withFaults);
    for (const Step& step : life)
        world.take(step);
    world.settle();
    world.checkReceived();
    world.checkRetained();
}

class DeliveryFlowModel : public DeliveryQueueFixture
{
protected:
    DeliveryFlowModel() { m_settings.historyPerSecond = 2000; }
};

} // namespace

TEST_F(DeliveryFlowModel, LosesNothingAndSendsTwiceOnlyWhatACutOrAKillLeftOpen)
{
    EXPECT_TRUE(rc::check("lives without faults of the disk",
                          [this] { live(*steps(), m_settings, false); }));
}

TEST_F(DeliveryFlowModel, LosesWithADiskThatRefusesOnlyWhatWasInMemoryAtAKill)
{
    EXPECT_TRUE(
        rc::check("lives with faults of the disk", [this] { live(*steps(), m_settings, true); }));
}
