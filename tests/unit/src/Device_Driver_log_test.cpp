// The debug log keeps state for as long as its process runs, so every test runs in a child process,
// with a temporary folder as working directory.

#include "Device_Driver.h"
#include "Func_Initi.h"
#include "lock_witness.h"
#include "tagcommunication.h"
#include "wire.h"

#include <QtCore/QDateTime>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QRegularExpression>
#include <QtCore/QTemporaryDir>
#include <QtCore/QTextCodec>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <functional>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

bool clockComplains = false;
QDateTime shownTime; // null: the real time

} // namespace

// Replaces Qt's function for the driver, so that writing a line can cause a message. The message
// goes to the handler directly, because Qt 5 does not pass such a message on, while Qt 4 does.
QDateTime QDateTime::currentDateTime()
{
    typedef QDateTime (*Clock)();
    static const Clock real =
        reinterpret_cast<Clock>(dlsym(RTLD_NEXT, "_ZN9QDateTime15currentDateTimeEv"));
    if (clockComplains)
        customMessageHandler(QtWarningMsg, "the clock is late");
    if (!shownTime.isNull())
        return shownTime;
    if (!real)
        std::abort();
    return real();
}

namespace {

class DebugLog : public ::testing::Test
{
protected:
    /// Runs `action` in a child process in the temporary folder. Returns what it wrote to standard
    /// error.
    QByteArray inChild(const std::function<void()>& action)
    {
        const QByteArray errors = m_dir.filePath("stderr").toLocal8Bit();
        std::fflush(nullptr); // or the child would write the buffered text again
        const pid_t child = ::fork();
        if (child == 0) {
            if (::chdir(m_dir.path().toLocal8Bit().constData()) != 0 ||
                !std::freopen(errors.constData(), "w", stderr))
                ::_exit(99);
            action();
            std::exit(0); // not _exit(): a coverage build writes its counters at the end
        }
        int status = -1;
        ::waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        return read("stderr");
    }
    QByteArray read(const char* name)
    {
        QFile file(m_dir.filePath(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    QStringList lines()
    {
        QStringList all = QString::fromUtf8(read("debug.log")).split('\n');
        EXPECT_EQ(all.takeLast(), QString()) << "the last line must end with a line end";
        return all;
    }
    void write(const char* content)
    {
        QFile file(m_dir.filePath("debug.log"));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(content);
    }

    QTemporaryDir m_dir;
};

TEST_F(DebugLog, IsClearedByTheFirstMessageAndExtendedByLaterOnes)
{
    write("of the last run\n");
    inChild([] {
        customMessageHandler(QtDebugMsg, "one");
        customMessageHandler(QtWarningMsg, "two");
        customMessageHandler(QtCriticalMsg, "three");
    });
    const QStringList all = lines();
    ASSERT_EQ(all.size(), 3);
    EXPECT_TRUE(all[0].endsWith(":one"));
    EXPECT_TRUE(all[1].endsWith(":two"));
    EXPECT_TRUE(all[2].endsWith(":three"));
}

TEST_F(DebugLog, StartsEachLineWithTheLocalTimeAndUnpaddedMilliseconds)
{
    const QDateTime before = QDateTime::currentDateTime();
    inChild([] {
        // One, two and three digits of milliseconds: each occurs within a second.
        for (int limit : {10, 100, 1000}) {
            while (QTime::currentTime().msec() >= limit || QTime::currentTime().msec() < limit / 10)
            {
            }
            customMessageHandler(QtDebugMsg, "m");
        }
    });
    const QDateTime after = QDateTime::currentDateTime();
    const QRegularExpression form(
        "^(\\d{4}\\.\\d\\d\\.\\d\\d\\.\\d\\d:\\d\\d:\\d\\d)\\.(0|[1-9]\\d{0,2}):m$");
    QDateTime last = before.addMSecs(-1);
    for (const QString& line : lines()) {
        const QRegularExpressionMatch match = form.match(line);
        ASSERT_TRUE(match.hasMatch()) << line.toStdString();
        const QDateTime time = QDateTime::fromString(match.captured(1), "yyyy.MM.dd.hh:mm:ss")
                                   .addMSecs(match.captured(2).toInt());
        EXPECT_GE(time, last) << line.toStdString();
        EXPECT_LE(time, after);
        last = time;
    }
}

TEST_F(DebugLog, WritesEachPartOfTheDateWithAllDigitsAndTheMillisecondsAsANumber)
{
    struct Row
    {
        QDateTime time;
        const char* line;
    };
    const std::vector<Row> rows = {
        {{{2024, 1, 5}, {9, 3, 7, 5}}, "2024.01.05.09:03:07.5:m\n"},
        {{{2024, 1, 5}, {9, 3, 7, 50}}, "2024.01.05.09:03:07.50:m\n"},
        {{{2024, 1, 5}, {9, 3, 7, 500}}, "2024.01.05.09:03:07.500:m\n"},
        {{{2031, 12, 26}, {21, 45, 58, 123}}, "2031.12.26.21:45:58.123:m\n"},
        {{{2000, 10, 1}, {0, 0, 0, 0}}, "2000.10.01.00:00:00.0:m\n"},
        {{{2099, 2, 28}, {12, 0, 59, 999}}, "2099.02.28.12:00:59.999:m\n"},
    };
    inChild([&] {
        ::setenv("TZ", "XXX-5:30", 1); // the local time is not the universal one
        ::tzset();
        for (const Row& row : rows) {
            shownTime = row.time;
            customMessageHandler(QtDebugMsg, "m");
        }
    });
    QByteArray expected;
    for (const Row& row : rows)
        expected += row.line;
    EXPECT_EQ(read("debug.log"), expected);
}

TEST_F(DebugLog, DropsALineThatCannotBeWrittenAndStillCountsItAsTheFirst)
{
    const QByteArray errors = inChild([] {
        ::mkdir("debug.log", 0700); // a folder of that name: not even root can open it as a file
        customMessageHandler(QtDebugMsg, "lost");
        ::rmdir("debug.log");
        QFile file("debug.log");
        if (file.open(QIODevice::WriteOnly))
            file.write("kept\n");
        file.close();
        customMessageHandler(QtDebugMsg, "second");
    });
    EXPECT_EQ(errors, QByteArray());
    const QStringList all = lines();
    ASSERT_EQ(all.size(), 2);
    EXPECT_EQ(all[0], QString("kept"));
    EXPECT_TRUE(all[1].endsWith(":second"));
}

void asQtHandler(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    customMessageHandler(type, message.toLatin1().constData());
}

TEST_F(DebugLog, WorksAsTheMessageHandlerOfTheProcess)
{
    const QByteArray errors = inChild([] {
        qInstallMessageHandler(asQtHandler);
        qWarning("through Qt");
        ::unlink("debug.log");
        ::mkdir("debug.log", 0700);
        qWarning("lost");
        ::rmdir("debug.log");
        qWarning("again");
    });
    EXPECT_EQ(errors, QByteArray());
    const QStringList all = lines();
    ASSERT_EQ(all.size(), 1);
    EXPECT_TRUE(all[0].endsWith(":again"));
}

TEST_F(DebugLog, DropsAMessageThatIsCausedByWritingALine)
{
    const QByteArray errors = inChild([] {
        ::alarm(60); // a handler that waits for itself would never end
        clockComplains = true;
        customMessageHandler(QtDebugMsg, "one");
        clockComplains = false;
        customMessageHandler(QtDebugMsg, "two");
    });
    EXPECT_EQ(errors, QByteArray());
    const QStringList all = lines();
    ASSERT_EQ(all.size(), 2);
    EXPECT_TRUE(all[0].endsWith(":one"));
    EXPECT_TRUE(all[1].endsWith(":two"));
}

TEST_F(DebugLog, DoesNotMixTheLinesOfTwoThreads)
{
    inChild([] {
        std::thread other([] {
            for (int i = 0; i < 200; ++i)
                customMessageHandler(QtDebugMsg, "other");
        });
        for (int i = 0; i < 200; ++i)
            customMessageHandler(QtDebugMsg, "one");
        other.join();
    });
    const QStringList all = lines();
    EXPECT_EQ(all.size(), 400);
    EXPECT_EQ(all.filter(QRegularExpression(":one$")).size(), 200);
    EXPECT_EQ(all.filter(QRegularExpression(":other$")).size(), 200);
}

TEST_F(DebugLog, KeepsALineThatAnotherThreadWritesJustBeforeTheLock)
{
    inChild([] {
        for (const char* message : {"first", "later"}) {
            LockWitness witness;
            witness.beforeNextLock([] {
                std::thread other([] { customMessageHandler(QtDebugMsg, "other"); });
                other.join();
            });
            customMessageHandler(QtDebugMsg, message);
        }
    });
    const QStringList all = lines();
    ASSERT_EQ(all.size(), 4);
    EXPECT_TRUE(all[0].endsWith(":other"));
    EXPECT_TRUE(all[1].endsWith(":first"));
    EXPECT_TRUE(all[2].endsWith(":other"));
    EXPECT_TRUE(all[3].endsWith(":later"));
}

TEST_F(DebugLog, ShowsTheTimeAtWhichALineHasItsTurn)
{
    inChild([] {
        shownTime = QDateTime(QDate(2024, 1, 5), QTime(9, 3, 7, 5));
        LockWitness witness;
        witness.beforeNextLock([] { shownTime = shownTime.addSecs(60); });
        customMessageHandler(QtDebugMsg, "m");
    });
    EXPECT_EQ(lines(), QStringList("2024.01.05.09:04:07.5:m"));
}

TEST_F(DebugLog, HasALongMessageAsAWhole)
{
    const QByteArray message(100000, 'm');
    inChild([&] { customMessageHandler(QtDebugMsg, message.constData()); });
    ASSERT_EQ(lines().size(), 1);
    EXPECT_TRUE(lines()[0].endsWith(":" + message));
}

TEST_F(DebugLog, IsWrittenUnderItsOwnLock)
{
    inChild([] {
        LockWitness witness;
        customMessageHandler(QtDebugMsg, "m");
        if (witness.locked().size() != 1 || !witness.balanced())
            std::exit(96);
    });
    EXPECT_EQ(lines().size(), 1);
}

TEST_F(DebugLog, HasTheWholeLineBeforeItsLockIsReleased)
{
    inChild([] {
        LockWitness witness;
        customMessageHandler(QtDebugMsg, "one");
        witness.watch([] { return static_cast<int>(QFile("debug.log").size()); },
                      *witness.locked().front());
        customMessageHandler(QtDebugMsg, "two");
        if (witness.unguardedValueChanges() != 0)
            std::exit(95);
    });
    EXPECT_EQ(lines().size(), 2);
}

TEST_F(DebugLog, RecordsMessagesOfEveryTypeAndContinuesAfterAFatalOne)
{
    inChild([] {
        for (QtMsgType type :
             {QtDebugMsg, QtWarningMsg, QtCriticalMsg, QtFatalMsg, QtInfoMsg, QtDebugMsg})
            customMessageHandler(type, "m");
    });
    EXPECT_EQ(lines().size(), 6);
}

TEST_F(DebugLog, IsWrittenToTheCurrentWorkingDirectory)
{
    inChild([] {
        customMessageHandler(QtDebugMsg, "one");
        ::mkdir("other", 0700);
        if (::chdir("other") != 0)
            std::exit(98);
        QFile file("debug.log");
        if (file.open(QIODevice::WriteOnly))
            file.write("kept\n");
        file.close();
        customMessageHandler(QtDebugMsg, "two");
    });
    ASSERT_EQ(lines().size(), 1);
    EXPECT_TRUE(lines()[0].endsWith(":one"));
    const QList<QByteArray> other = read("other/debug.log").split('\n');
    ASSERT_EQ(other.size(), 3) << "only the first message of the process clears the file";
    EXPECT_EQ(other[0], QByteArray("kept"));
    EXPECT_TRUE(other[1].endsWith(":two"));
}

TEST_F(DebugLog, DecodesAMessageAsLatin1)
{
    inChild([] {
        // The stream writes in the locale's encoding, so choose one that contains the letter.
        QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
        customMessageHandler(QtDebugMsg, "\xE9");
    });
    ASSERT_EQ(lines().size(), 1);
    EXPECT_TRUE(lines()[0].endsWith(QString(":") + QChar(0xE9)));
}

int messagesSeen = 0;

void countMessage(QtMsgType, const QMessageLogContext&, const QString&)
{
    ++messagesSeen;
}

TEST_F(DebugLog, IsNeitherWrittenByThePollCycleNorInstalledByTheDriver)
{
    const QByteArray errors = inChild([] {
        qInstallMessageHandler(countMessage);
        ComInfo settings = ComInfo();
        SetComInfo(&settings);
        RW_VAR request = RW_VAR();
        request.tagName = "T";
        AddListReadVar(&request);
        AddListWriteVar(&request, 1);
        for (int i = 0; i < 40; ++i) {
            const bool connecting = !getHandshakeInformation(0);
            const bool identity = settings.framesAnswered == 0;
            ComCommunication();
            QByteArray reply = !connecting ? wire::readReply(1, 0xC3, "xy")
                               : identity  ? wire::identityReply(1)
                                           : wire::forwardOpenReply(2, "id");
            if (i % 7 == 6)
                reply.clear();
            DataCom(&reply, reply.size());
        }
        if (qInstallMessageHandler(nullptr) != countMessage || messagesSeen != 0)
            std::exit(97);
    });
    EXPECT_EQ(errors, QByteArray());
    EXPECT_FALSE(QFile::exists(m_dir.filePath("debug.log")));
}

TEST_F(DebugLog, TreatsANullMessageAsEmpty)
{
    inChild([] { customMessageHandler(QtDebugMsg, nullptr); });
    ASSERT_EQ(lines().size(), 1);
    EXPECT_TRUE(lines()[0].endsWith(":"));
}

} // namespace
