#ifndef MICRO850_BENCH_WORKLOAD_H
#define MICRO850_BENCH_WORKLOAD_H

#include "Func_Initi.h"

#include <functional>
#include <string>
#include <vector>

/// One kind of transaction, to be repeated through the driver's public entry points with prepared
/// replies. A process has one driver and therefore one workload.
class Workload
{
public:
    /// The names of the kinds: scalars, arrays, a string, a write, the connection set-up.
    static std::vector<std::string> names();

    /// A connected driver with `variables` cyclic variables of the kind, each read once. Aborts on
    /// an unknown name.
    Workload(const std::string& name, int variables);

    /// The operation of that name: "step", the kind's transaction with the host's fetch of its
    /// value; "cyclic", a cyclic read alone; "fetch", GetRegisterData; "set", SetRegisterData with
    /// the transaction that it waits for; "rebuild", ReCreatReadVarList. Each aborts if the driver
    /// does not do its part. Null for any other name.
    std::function<void()> operation(const std::string& name);
    /// Bytes of the frame that the last step sent, and of its reply.
    int wireBytes() const { return m_wireBytes; }

private:
    void connect();
    void readOne();
    void fetch();
    void set();
    void rebuild();
    void exchange(const QByteArray& reply, int calls);

    ComInfo m_settings;
    QList<HOSTVAR> m_variables;
    QByteArray m_readReply;
    QByteArray m_writeReply;
    QByteArray m_identityReply;
    QByteArray m_forwardOpenReply;
    QByteArray m_value;
    QByteArray m_fetched; ///< reused, as a host reuses the buffer of a value that it shows
    std::function<void()> m_step;
    int m_count;
    int m_next;
    int m_wireBytes;
};

#endif
