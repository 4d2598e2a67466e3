#ifndef MICRO850_TESTS_THREADS_FIXTURE_H
#define MICRO850_TESTS_THREADS_FIXTURE_H

#include "driver_fixture.h"
#include "simulated_controller.h"
#include "watchdog.h"

#include <atomic>
#include <climits>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

/// Lets threads wait for what other threads change. The test's watchdog is the limit.
class Progress
{
public:
    template<typename Change> void notify(Change change)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        change();
        m_wake.notify_all();
    }

    template<typename Condition> void await(Condition condition)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_wake.wait(lock, condition);
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_wake;
};

/// The poll pair on the test's thread, two controllers in memory, and means for host threads to
/// wait for the completion of their requests.
class ThreadsTest : public DriverTest
{
protected:
    static constexpr int kVariables = 64;
    static constexpr int kOtherStation = 9;
    static constexpr int kForeignLink = 70;

    ThreadsTest() : m_watchdog(std::chrono::seconds(240))
    {
        for (auto& count : done)
            count = 0;
        onDone = nullptr;
        RegistCallBackFuncIntf(noteFinished, [](QList<RW_VAR>*, int, int) {});
        // Some replies are lost below. No request may be given up because of that.
        settings.retryLimit = INT_MAX;
    }

    /// A 64-bit tag, known to the controller and declared to the driver.
    static QByteArray total(int number) { return "Total" + QByteArray::number(number); }

    void defineTotals(int tags)
    {
        for (int i = 0; i < tags; ++i) {
            controller.define(total(i), "LINT");
            elsewhere.define(total(i), "LINT");
            declareIndexed(total(i).constData());
        }
    }

    RW_VAR totalRequest(int tag, int varIndex)
    {
        RW_VAR request = readOf(total(tag).constData(), 0, 4);
        request.varIndex = varIndex;
        // A write replaces a queued one to the same area and element, whatever its name.
        request.areaType = 100 + tag;
        return request;
    }

    RW_VAR totalWrite(int tag, int varIndex, quint32 number)
    {
        RW_VAR request = totalRequest(tag, varIndex);
        request.accessMode = 1;
        request.onceFlag = 2;
        request.data = pattern(number);
        return request;
    }

    /// A value with two equal halves, so that a mixture of two writes is visible.
    static QByteArray pattern(quint32 number)
    {
        return wire::little(number, 4) + wire::little(number, 4);
    }

    static bool isPattern(const QByteArray& bytes)
    {
        return bytes.size() == 8 && bytes.left(4) == bytes.right(4);
    }

    static quint32 numberOf(const QByteArray& bytes)
    {
        quint32 value = 0;
        for (int i = 3; i >= 0; --i)
            value = value << 8 | static_cast<quint8>(bytes.at(i));
        return value;
    }

    /// Reads a total that the driver has stored; false when there is none.
    static bool readBack(int tag, QByteArray& out)
    {
        return GetRegisterData(QString::fromLatin1(total(tag)), 0, "0", 1, out, 4) == 1;
    }

    /// Makes one transaction, like a host; false when there was nothing to send. Every 13th reply
    /// is lost.
    bool transact()
    {
        Protocol* next = ComCommunication();
        if (!next)
            return false;
        const bool varies = next->replyLength == -1;
        SimulatedController& addressed =
            next->var.stationNo == kOtherStation ? elsewhere : controller;
        foreignFrames += next->var.linkId == kForeignLink;
        QByteArray reply = addressed.exchange(next->frame);
        if (++m_transactions % 13 == 0)
            reply.clear();
        const int length = varies ? reply.size() : next->replyLength;
        DataCom(&reply, length);
        if (varies && !reply.isEmpty())
            DataCom(&reply, length);
        return true;
    }

    /// Polls until every thread has ended and nothing is left to send but cyclic reads.
    void pollUntilEnd(std::vector<std::thread>& threads)
    {
        std::atomic<bool> running(true);
        std::thread join([&] {
            for (std::thread& thread : threads)
                thread.join();
            running = false;
        });
        while (running) {
            if (!transact())
                std::this_thread::yield();
        }
        join.join();
        drain();
    }

    void drain()
    {
        QList<HOSTVAR> none;
        ReCreatReadVarList(&none);
        // There can be one idle call between two bursts.
        for (int idle = 0; idle < 2;)
            idle = transact() ? 0 : idle + 1;
    }

    /// Waits until `wanted` requests of a variable are completed.
    static void awaitDone(int varIndex, int wanted)
    {
        completions.await([=] { return done[varIndex] >= wanted; });
    }

    SimulatedController controller;
    /// The controller of station kOtherStation.
    SimulatedController elsewhere;
    /// Number of frames sent for requests of kForeignLink.
    int foreignFrames = 0;

    /// Completed requests by the host's number of the variable.
    static inline Progress completions;
    static inline std::atomic<int> done[kVariables];
    /// Called for each successful completion, on the poll thread, before it is counted.
    static inline std::function<void(int varIndex)> onDone;

private:
    static void noteFinished(int, int, int varIndex, int status)
    {
        QByteArray out;
        readBack(0, out);
        if (status == 1 && onDone)
            onDone(varIndex);
        if (varIndex >= 0 && varIndex < kVariables)
            completions.notify([=] { ++done[varIndex]; });
    }

    Watchdog m_watchdog;
    int m_transactions = 0;
};

#endif
