#ifndef MICRO850_TESTS_FAKE_DRIVER_H
#define MICRO850_TESTS_FAKE_DRIVER_H

#include "DriverLibrary.h"

#include <string>
#include <utility>
#include <vector>

/// Entry points that only note what a host queues, in place of the driver. One at a time.
class FakeDriver
{
public:
    FakeDriver() { s_driver = this; }
    ~FakeDriver() { s_driver = nullptr; }
    FakeDriver(const FakeDriver&) = delete;
    FakeDriver& operator=(const FakeDriver&) = delete;

    micro850::host::DriverApi api() const
    {
        micro850::host::DriverApi api;
        api.setComInfo = [](ComInfo*) {};
        api.registerCallbacks = [](FinishCallback finish, RefreshCallback) {
            s_driver->m_finish = finish;
        };
        api.flashLocalRegister = [](void*, void*, void*) {};
        api.enableStation = [](int, int) {};
        api.passVarName = [](QList<varName>* names) {
            for (const varName& name : *names)
                s_driver->declared.push_back(name.name.toStdString());
        };
        api.recreateReadList = [](QList<HOSTVAR>*) { return 0; };
        api.addRead = [](RW_VAR*) { return 0; };
        api.addOneShotRead = [](RW_VAR* request, int mode) {
            s_driver->note(mode == 0 ? "read " : "learn ", request->tagName, request->addressText,
                           request->count, request->varIndex);
            return 0;
        };
        api.setRegisterData = [](const QString& name, int, const QString& address, int,
                                 const QByteArray&, int count, int, int id) {
            s_driver->note("write ", name, address, count, id);
            return 0;
        };
        api.getRegisterData = [](const QString&, int, const QString&, int, QByteArray& out, int) {
            ++s_driver->fetches;
            out = s_driver->stored;
            return 0;
        };
        return api;
    }

    /// Reports an operation finished, as the driver does from within its calls.
    void report(int id, bool succeeded) { m_finish(0, 0, id, succeeded ? 1 : 3); }
    /// Returns and removes what was queued: "read A[3] x2 #5", the last number the operation's id.
    std::vector<std::string> popQueued() { return std::exchange(m_queued, {}); }

    std::vector<std::string> declared;
    QByteArray stored; ///< what GetRegisterData() returns
    int fetches = 0;

private:
    void note(const char* what, const QString& tag, const QString& element, int count, int id)
    {
        m_queued.push_back(what + tag.toStdString() + '[' + element.toStdString() + "] x" +
                           std::to_string(count) + " #" + std::to_string(id));
    }

    static inline FakeDriver* s_driver = nullptr;
    FinishCallback m_finish = nullptr;
    std::vector<std::string> m_queued;
};

#endif
