// Loads and unloads the library, as a host does that changes its driver at run time.

#include "Device_Driver.h"
#include "Func_Initi.h"
#include "fresh_driver.h"
#include "tagcommunication.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <malloc.h>

#include <algorithm>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace {

bool recording = false;
std::vector<const void*> registered;

} // namespace

// Replaces the C library's function for the driver. An object that is constructed while the library
// loads registers its destructor here, in the order of construction.
extern "C" int __cxa_atexit(void (*destructor)(void*), void* object, void* library)
{
    typedef int (*Register)(void (*)(void*), void*, void*);
    static const Register real = reinterpret_cast<Register>(dlsym(RTLD_NEXT, "__cxa_atexit"));
    if (recording)
        registered.push_back(object);
    return real(destructor, object, library);
}

namespace {

/// Loads the library, and unloads it at the end.
class Loaded
{
public:
    Loaded() : m_handle(dlopen(MICRO850_LIBRARY, RTLD_NOW | RTLD_LOCAL))
    {
        EXPECT_NE(m_handle, nullptr) << dlerror();
    }
    ~Loaded()
    {
        if (m_handle) {
            EXPECT_EQ(dlclose(m_handle), 0);
        }
    }
    Loaded(const Loaded&) = delete;
    Loaded& operator=(const Loaded&) = delete;

    /// An entry point by its symbol name, with the type that the header declares.
    template<typename Function> Function* entry(const char* name) const
    {
        return reinterpret_cast<Function*>(address(name));
    }
    /// An exported object by its symbol name.
    template<typename Object> Object& object(const char* name) const
    {
        return *static_cast<Object*>(address(name));
    }

private:
    void* address(const char* name) const
    {
        void* found = m_handle ? dlsym(m_handle, name) : nullptr;
        EXPECT_NE(found, nullptr) << name;
        return found;
    }
    void* m_handle;
};

bool isLoaded()
{
    void* handle = dlopen(MICRO850_LIBRARY, RTLD_NOW | RTLD_NOLOAD);
    if (handle)
        dlclose(handle);
    return handle != nullptr;
}

RW_VAR request(int number)
{
    RW_VAR made = RW_VAR();
    made.varIndex = number;
    made.tagName = QString("A tag with a name that is not shared %1").arg(number);
    made.addressText = QString::number(number);
    made.stationNo = number;
    made.data = QByteArray(100, 'x');
    return made;
}

// Fills every list, the catalogue, the tag store and the send queue.
void queueRecords(const Loaded& library, ComInfo& settings)
{
    settings = ComInfo();
    settings.multiStation = 1;
    library.entry<decltype(SetComInfo)>("SetComInfo")(&settings);
    QList<varName> names;
    names.append(varName{"A name of the catalogue", 2, 0, QList<QString>() << "kept"});
    library.entry<decltype(PassVarName)>("PassVarName")(&names);
    for (int i = 0; i < 5; ++i) {
        RW_VAR made = request(i);
        EXPECT_EQ(library.entry<decltype(AddListReadVar)>("AddListReadVar")(&made), i + 1);
        EXPECT_EQ(library.entry<decltype(AddListWriteVar)>("AddListWriteVar")(&made, 1), i + 1);
        EXPECT_EQ(library.entry<decltype(AddListOnceReadVar)>("AddListOnceReadVar")(&made, 0),
                  i + 1);
    }
    EXPECT_NE(library.entry<decltype(ComCommunication)>("ComCommunication")(), nullptr);
}

void loadFillAndUnload()
{
    ComInfo settings;
    const Loaded library;
    queueRecords(library, settings);
}

TEST(LoadAndUnload, RemovesTheLibraryFromTheProcess)
{
    ASSERT_FALSE(isLoaded());
    {
        const Loaded library;
        EXPECT_TRUE(isLoaded());
    }
    EXPECT_FALSE(isLoaded());
    loadFillAndUnload();
    EXPECT_FALSE(isLoaded());
}

TEST(LoadAndUnload, StartsWithAnEmptyDriverEachTime)
{
    for (int round = 0; round < 2; ++round) {
        ComInfo settings;
        const Loaded library;
        const Device_Driver& driver = library.object<Device_Driver>("PLC_driver");
        expectFresh(driver);
        EXPECT_EQ((library.object<QMap<int, PLCTAGCOMMUNICATION>>("PLCDataStorage").size()), 0);
        for (const char* area : {"LB", "LW", "RWI"})
            EXPECT_EQ(library.object<void*>(area), nullptr) << area;
        EXPECT_EQ((library.object<QMap<QString, varName>>("plcAddList").size()), 0);
        EXPECT_EQ(library.entry<decltype(ComCommunication)>("ComCommunication")(), nullptr);
        queueRecords(library, settings);
        EXPECT_EQ(driver.sendQueue.size(), 2);
    }
}

// How many incomplete replies the library, just loaded, checks before it gives up a read. It is
// unloaded in the middle of the next count.
int checksUntilGivenUp()
{
    ComInfo settings = ComInfo();
    const Loaded library;
    const auto dataCom = library.entry<decltype(DataCom)>("DataCom");
    library.entry<decltype(SetComInfo)>("SetComInfo")(&settings);
    library.object<QMap<int, PLCTAGCOMMUNICATION>>("PLCDataStorage")[1].handshakeDone = true;
    RW_VAR made = request(1);
    library.entry<decltype(AddListReadVar)>("AddListReadVar")(&made);
    Protocol* head = library.entry<decltype(ComCommunication)>("ComCommunication")();
    EXPECT_NE(head, nullptr);
    QByteArray incomplete = "x";
    int checks = 1;
    while (head && checks < 30 && dataCom(&incomplete, 1)->retValue == 0)
        ++checks;
    if (head) {
        head->replyLength = -1;
        for (int i = 0; i < 5; ++i)
            EXPECT_EQ(dataCom(&incomplete, 1)->retValue, 0);
    }
    return checks;
}

TEST(LoadAndUnload, StartsTheCountOfIncompleteRepliesAtZeroEachTime)
{
    EXPECT_EQ(checksUntilGivenUp(), 11);
    EXPECT_EQ(checksUntilGivenUp(), 11);
}

// The log's content after the library was loaded and has written these messages.
QByteArray logAfter(const std::vector<const char*>& messages)
{
    const Loaded library;
    const auto handler =
        library.entry<decltype(customMessageHandler)>("_Z20customMessageHandler9QtMsgTypePKc");
    for (const char* message : messages)
        handler(QtDebugMsg, message);
    QFile file("debug.log");
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

TEST(LoadAndUnload, ClearsTheLogWithTheFirstMessageEachTime)
{
    const QString before = QDir::currentPath();
    QTemporaryDir folder;
    ASSERT_TRUE(QDir::setCurrent(folder.path()));
    const QByteArray first = logAfter({"one", "two"});
    const QByteArray second = logAfter({"three"});
    ASSERT_TRUE(QDir::setCurrent(before));
    EXPECT_EQ(first.count('\n'), 2) << "each line is in the file when the call returns";
    EXPECT_TRUE(first.endsWith(":two\n"));
    EXPECT_EQ(second.count('\n'), 1);
    EXPECT_TRUE(second.endsWith(":three\n"));
}

TEST(LoadAndUnload, ConstructsTheDriverThenTheCatalogueThenTheStore)
{
    registered.clear();
    recording = true;
    const Loaded library;
    recording = false;
    std::vector<std::ptrdiff_t> places;
    for (const char* name : {"PLC_driver", "plcAddList", "PLCDataStorage"}) {
        const auto found =
            std::find(registered.begin(), registered.end(), &library.object<char>(name));
        ASSERT_NE(found, registered.end()) << name;
        places.push_back(found - registered.begin());
    }
    EXPECT_LT(places[0], places[1]);
    EXPECT_LT(places[1], places[2]) << "so they are destroyed in the reverse order";
}

// The growth of the heap over two hundred rounds, in bytes.
std::size_t growthOfTwoHundredRounds()
{
    const std::size_t before = mallinfo2().uordblks;
    for (int round = 0; round < 200; ++round)
        loadFillAndUnload();
    const std::size_t after = mallinfo2().uordblks;
    return after > before ? after - before : 0;
}

TEST(LoadAndUnload, LeaksNothingOverTwoHundredRoundsWithQueuedRecords)
{
    // The C library keeps some memory until its caches are full. A leak takes at least the smallest
    // block in each round.
    const std::size_t smallestBlock = 16;
    std::size_t least = growthOfTwoHundredRounds();
    for (int i = 0; i < 5; ++i)
        least = std::min(least, growthOfTwoHundredRounds());
    EXPECT_LT(least, 200 * smallestBlock);
#if defined(__SANITIZE_ADDRESS__)
    EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0);
#endif
}

} // namespace
