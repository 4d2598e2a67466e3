#ifndef MICRO850_TESTS_EXHAUST_DRIVER_COPY_H
#define MICRO850_TESTS_EXHAUST_DRIVER_COPY_H

#include "Device_Driver.h"
#include "model.h"
#include "tagcommunication.h"

#include <initializer_list>
#include <string>

/// A copy of everything that the driver knows, with the host's settings record.
struct DriverCopy
{
    QList<RW_VAR> readList, writeList, onceReadList;
    QList<Protocol> sendQueue;
    QMap<int, int> disabledStations;
    QMap<int, PLCTAGCOMMUNICATION> stations;
    RW_VAR result = RW_VAR();
    int currentList = 0, writeBurst = 0, onceBurst = 0, readCycleCount = 0;
    bool errorFlag = false;
    int attempts = 0; ///< DataCom's own count, which is no member of the driver object
    ComInfo settings = ComInfo();
};

namespace driver_copy {

/// The settings record that the driver uses.
ComInfo& settings();
/// The driver as it is. What DataCom counts and works on is changed by that, so that restore() must
/// follow.
DriverCopy taken();
/// Makes the driver as it was when the copy was taken; only after taken().
void restore(const DriverCopy& copy);
/// What the driver should be like according to the model.
DriverCopy expected(const model::Driver& driver);
RW_VAR recordOf(const model::Request& request);
Protocol transactionOf(const model::Transaction& sent);
/// True if nothing changed that no copy contains, and no lock is held.
bool restIsUntouched();

} // namespace driver_copy

/// Bytes that are equal if and only if what was added is equal; or a line for each thing added, for
/// people.
class Description
{
public:
    /// From now on.
    void makeReadable() { m_readable = true; }
    /// A number, as it is called.
    struct Number
    {
        const char* name;
        int value;
    };
    void add(const char* name, qint64 number);
    void add(std::initializer_list<Number> numbers);
    void add(const char* name, const QByteArray& bytes);
    void add(const char* name, const QString& text);
    void add(const char* name, const RW_VAR& request);
    void add(const char* name, const Protocol& transaction);
    void add(const DriverCopy& copy);
    const std::string& text() const { return m_text; }
    void clear() { m_text.clear(); }

private:
    void add(const char* name, const PLCTAGCOMMUNICATION& station);
    void add(const char* name, const QMap<QString, QByteArray>& bytesByTag);
    template<class Items> void addList(const char* name, const Items& items)
    {
        add(name, items.size());
        for (const auto& item : items)
            add(name, item);
    }
    template<class Items> void addMap(const char* name, const Items& items)
    {
        add(name, items.size());
        for (auto item = items.constBegin(); item != items.constEnd(); ++item) {
            add(name, item.key());
            add(name, item.value());
        }
    }

    bool m_readable = false;
    std::string m_text;
};

#endif
