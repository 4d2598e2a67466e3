#include "AdapterReport.h"

#include <gtest/gtest.h>

using namespace micro850::host;

namespace {

Adapter usbAdapter(std::optional<int> timer)
{
    Adapter adapter;
    adapter.name = "ttyUSB0";
    adapter.driver = "some_serial";
    adapter.manufacturer = "Maker";
    adapter.product = "USB to serial";
    adapter.serial = "A1B2";
    adapter.usbId = "1a2b:0042";
    adapter.latencyTimerMs = timer;
    return adapter;
}

Adapter uart(int trigger)
{
    Adapter adapter;
    adapter.name = "ttyS0";
    adapter.driver = "serial";
    adapter.receiveTrigger = trigger;
    adapter.fifo = 16;
    return adapter;
}

AdapterReport unchanged(const Adapter& adapter, LowLatency lowLatency)
{
    return {adapter, adapter, lowLatency};
}

PortSettings portOf(int baud)
{
    PortSettings port;
    port.device = "/dev/serial/by-id/link";
    port.baud = baud;
    return port;
}

const char kTimerAdvice[] =
    "ttyUSB0: the adapter keeps the end of a reply for up to 16 ms: run \"echo 1 | sudo tee "
    "/sys/class/tty/ttyUSB0/device/latency_timer\", or install the udev rule of "
    "share/micro850/60-micro850-adapters.rules";
const char kFlagAdvice[] =
    "/dev/ttyUSB0: this user may not ask for low latency: run \"sudo setserial /dev/ttyUSB0 "
    "low_latency\", or let a udev rule run it as share/micro850/60-micro850-adapters.rules shows";

const LowLatency kAll[] = {LowLatency::NotAsked,   LowLatency::Set,        LowLatency::WasSet,
                           LowLatency::NotAllowed, LowLatency::NotOffered, LowLatency::Failed};

} // namespace

// As behind a pseudo-terminal or a network address.
TEST(AdapterReport, IsEmptyWhereNeitherHardwareNorTheFlagIsKnown)
{
    for (const LowLatency lowLatency : {LowLatency::NotAsked, LowLatency::NotOffered}) {
        const AdapterReport report = unchanged(Adapter(), lowLatency);
        EXPECT_EQ(report.lines(), QStringList());
        EXPECT_TRUE(report.object().is_null());
        EXPECT_EQ(report.advice(portOf(9600)), QString());
    }
}

// As in a container that hides the hardware.
TEST(AdapterReport, TellsOfTheFlagWhereNoHardwareIsKnown)
{
    const AdapterReport set = unchanged(Adapter(), LowLatency::Set);
    EXPECT_EQ(set.lines(), QStringList("low latency   on while the line is open"));
    EXPECT_EQ(set.object().dump(), R"({"lowLatency":"set"})");
    EXPECT_EQ(set.advice(portOf(9600)), QString());
    const AdapterReport refused = unchanged(Adapter(), LowLatency::NotAllowed);
    EXPECT_EQ(refused.lines(), QStringList("low latency   this user may not set it"));
    EXPECT_TRUE(refused.advice(portOf(9600))
                    .contains("run \"sudo setserial /dev/serial/by-id/link low_latency\""))
        << refused.advice(portOf(9600)).toStdString();
}

TEST(AdapterReport, ShowsTheTimerBeforeAndWhileTheLineIsOpen)
{
    const AdapterReport report = {usbAdapter(16), usbAdapter(1), LowLatency::Set};
    EXPECT_EQ(report.lines(),
              (QStringList{"adapter       Maker USB to serial (1a2b:0042, serial A1B2)",
                           "driver        some_serial", "low latency   on while the line is open",
                           "latency timer 16 ms, 1 ms while the line is open"}));
    EXPECT_EQ(report.object().dump(),
              R"({"device":"ttyUSB0","manufacturer":"Maker","product":"USB to serial",)"
              R"("serial":"A1B2","usbId":"1a2b:0042","driver":"some_serial","lowLatency":"set",)"
              R"("latencyTimerMs":16,"latencyTimerMsOpen":1})");
    EXPECT_EQ(report.advice(portOf(38400)), QString());
}

TEST(AdapterReport, LeavesOutWhatIsNotKnown)
{
    Adapter bare;
    bare.name = "ttyUSB3";
    bare.usbId = "1a2b:0042";
    const AdapterReport report = unchanged(bare, LowLatency::NotOffered);
    EXPECT_EQ(report.lines(), (QStringList{"adapter       USB 1a2b:0042",
                                           "low latency   the driver does not offer it"}));
    EXPECT_EQ(report.object().dump(),
              R"({"device":"ttyUSB3","usbId":"1a2b:0042","lowLatency":"not offered"})");
    EXPECT_EQ(report.advice(portOf(38400)), QString()) << "nothing would help";
}

TEST(AdapterReport, TellsEachOutcomeInOtherWords)
{
    QStringList lines;
    QStringList words;
    for (const LowLatency lowLatency : kAll) {
        const AdapterReport report = unchanged(usbAdapter(std::nullopt), lowLatency);
        lines += report.lines().at(2);
        words += QString::fromStdString(report.object()["lowLatency"].get<std::string>());
    }
    EXPECT_EQ(lines, (QStringList{
                         "low latency   left as it was", "low latency   on while the line is open",
                         "low latency   on already", "low latency   this user may not set it",
                         "low latency   the driver does not offer it",
                         "low latency   the device did not answer"}));
    EXPECT_EQ(words,
              (QStringList{"not asked", "set", "was set", "not allowed", "not offered", "failed"}));
}

TEST(AdapterReport, AdvisesOneCommandWhereTheAdapterStillKeepsBytes)
{
    for (const LowLatency lowLatency : kAll) {
        const QString advice = unchanged(usbAdapter(16), lowLatency).advice(portOf(38400));
        if (lowLatency == LowLatency::NotAsked)
            EXPECT_EQ(advice, QString()) << "the user wants it so";
        else
            EXPECT_EQ(advice, QString(kTimerAdvice));
    }
    for (const int timer : {0, 1}) {
        EXPECT_EQ(unchanged(usbAdapter(timer), LowLatency::NotOffered).advice(portOf(38400)),
                  QString());
    }
}

TEST(AdapterReport, AdvisesSetserialToAUserWhoMayNotSetTheFlag)
{
    EXPECT_EQ(unchanged(usbAdapter(std::nullopt), LowLatency::NotAllowed).advice(portOf(38400)),
              QString(kFlagAdvice));
}

// Four characters of ten bits: 40 bits at 9600 are 4.16 ms, at 115200 they are 0.34 ms.
TEST(AdapterReport, AdvisesATriggerOfOneWithWhatItSaves)
{
    const AdapterReport report = unchanged(uart(8), LowLatency::Set);
    EXPECT_EQ(report.lines(),
              (QStringList{"driver        serial", "low latency   on while the line is open",
                           "fifo trigger  8 of 16 bytes"}));
    EXPECT_EQ(report.object().dump(), R"({"device":"ttyS0","driver":"serial","lowLatency":"set",)"
                                      R"("receiveTrigger":8,"fifo":16})");
    EXPECT_EQ(report.advice(portOf(9600)),
              QString("ttyS0: the port reports bytes in groups of 8, so that the end of a reply "
                      "waits for 4.1 ms: \"echo 1 | sudo tee /sys/class/tty/ttyS0/rx_trig_bytes\" "
                      "ends that, for one interrupt a byte"));
    EXPECT_TRUE(report.advice(portOf(115200)).contains("waits for 0.3 ms:"));
    EXPECT_EQ(unchanged(uart(1), LowLatency::Set).advice(portOf(9600)), QString());
    EXPECT_EQ(unchanged(uart(0), LowLatency::Set).advice(portOf(9600)), QString());
}

TEST(AdapterReport, IsOneNoteOfSeveralPiecesOfAdvice)
{
    Adapter adapter = uart(4);
    const QString advice = unchanged(adapter, LowLatency::NotAllowed).advice(portOf(9600));
    EXPECT_EQ(advice.count("; "), 1);
    EXPECT_TRUE(advice.contains("setserial /dev/ttyS0")) << advice.toStdString();
    EXPECT_TRUE(advice.contains("groups of 4")) << advice.toStdString();
}

TEST(AdapterReport, ShowsAHostileTextAsDataOnOneLine)
{
    Adapter hostile = usbAdapter(16);
    hostile.manufacturer = "a\x1b[2Jb";
    hostile.product = "two\nlines";
    hostile.serial = QString(QChar(0x202e)) + "x";
    hostile.driver = "d\rd";
    const AdapterReport report = unchanged(hostile, LowLatency::Set);
    EXPECT_EQ(report.lines().at(0),
              QString("adapter       a\\x1b[2Jb two\\nlines (1a2b:0042, serial \\u202ex)"));
    EXPECT_EQ(report.lines().at(1), QString("driver        d\\rd"));
    EXPECT_EQ(report.object()["manufacturer"].get<std::string>(), "a\x1b[2Jb");
}
