#include "Diagnosis.h"

#include <gtest/gtest.h>

using namespace micro850;
using namespace micro850::host;

namespace {

/// A line on which everything is as it should be.
Findings healthy()
{
    Findings found;
    found.port.device = "/dev/ttyUSB0";
    found.rights = {true, true, true, "root", "dialout", true, "crw-rw----"};
    found.answering = found.port;
    found.series.reads = found.series.answered = 200;
    found.series.roundTrips.fill(std::chrono::milliseconds(5), 200);
    return found;
}

/// The first advice, up to its colon.
QString firstAdvice(const Findings& found)
{
    return adviceOf(found).value(0).section(':', 0, 0);
}

} // namespace

TEST(Diagnosis, OfAGoodLineHasNoAdvice)
{
    EXPECT_EQ(adviceOf(healthy()), QStringList());
}

TEST(Diagnosis, NamesTheDevicesThatAreThereWhenTheOneIsMissing)
{
    Findings found = healthy();
    found.rights = DeviceRights();
    EXPECT_EQ(firstAdvice(found), "plug in the adapter");
    found.otherDevices = QStringList{"/dev/ttyUSB1", "/dev/ttyACM0"};
    EXPECT_EQ(adviceOf(found), QStringList("name the right device: this machine has /dev/ttyUSB1, "
                                           "/dev/ttyACM0"));
    found.rights.exists = true;
    EXPECT_EQ(firstAdvice(found), "/dev/ttyUSB0 is no device");
}

TEST(Diagnosis, TellsHowAUserGetsTheRights)
{
    Findings found = healthy();
    found.rights.allowed = false;
    found.rights.isMember = false;
    EXPECT_EQ(adviceOf(found), QStringList("let this user use the device: run \"sudo usermod -aG "
                                           "dialout $USER\", and log in again"));
    found.rights.isMember = true;
    EXPECT_EQ(firstAdvice(found), "the group dialout may not read and write /dev/ttyUSB0");
}

TEST(Diagnosis, NamesWhatUsesThePort)
{
    Findings found = healthy();
    found.answering.reset();
    found.openError = "another program uses it";
    found.users = QStringList{"minicom (process 12)"};
    EXPECT_EQ(adviceOf(found), QStringList("end what uses the device: minicom (process 12)"));
    found.gateway = "owned";
    EXPECT_EQ(firstAdvice(found), "the gateway owns the port");
}

TEST(Diagnosis, TellsSilenceFromNoiseFromLateRepliesAndFromAnEcho)
{
    Findings found = healthy();
    found.answering.reset();
    EXPECT_EQ(firstAdvice(found), "nothing comes back");
    found.bytesCame = true;
    EXPECT_EQ(firstAdvice(found), "bytes come, but no reply");
    found.cameLate = true;
    EXPECT_EQ(firstAdvice(found), "replies come after the time-out");
    found.hasEcho = true;
    EXPECT_EQ(firstAdvice(found), "only our own bytes come back");
}

TEST(Diagnosis, NamesTheSettingsAtWhichTheControllerAnswers)
{
    Findings found = healthy();
    found.answering->baud = 9600;
    EXPECT_EQ(adviceOf(found),
              QStringList("the controller answers at 9600 8N1, not at 38400 8N1: use --baud 9600, "
                          "or \"baud\": 9600 in the project"));
    found.answering->parity = Parity::Even;
    EXPECT_EQ(adviceOf(found),
              QStringList("the controller answers at 9600 8E1, not at 38400 8N1: set \"port\": { "
                          "\"baud\": 9600, \"parity\": \"even\" } in a project"));
}

TEST(Diagnosis, JudgesTheReplies)
{
    Findings found = healthy();
    found.series.damaged = 20;
    EXPECT_EQ(firstAdvice(found), "9.1 % of the replies are damaged");
    found.series.damaged = 1;
    EXPECT_EQ(firstAdvice(found), "few messages are damaged, and were repeated");
    found = healthy();
    found.series.answered = 190;
    EXPECT_EQ(firstAdvice(found), "10 of 200 reads had no answer");
    found = healthy();
    found.series.roundTrips[0] = found.series.roundTrips[1] = found.series.roundTrips[2] =
        std::chrono::milliseconds(400);
    EXPECT_EQ(firstAdvice(found), "some replies take much longer than others");
    found = healthy();
    found.hasEcho = true;
    EXPECT_EQ(firstAdvice(found), "what is sent comes back as well");
    found = healthy();
    found.adapterAdvice = "ttyUSB0: set its timer";
    EXPECT_EQ(adviceOf(found), QStringList("ttyUSB0: set its timer"));
}

TEST(ReadSeries, TellsTheRoundTripThatAShareDoesNotExceed)
{
    ReadSeries series;
    EXPECT_EQ(series.roundTrip(50), Duration(0));
    for (int ms = 100; ms >= 1; --ms)
        series.roundTrips += std::chrono::milliseconds(ms);
    EXPECT_EQ(series.roundTrip(0), std::chrono::milliseconds(1));
    EXPECT_EQ(series.roundTrip(50), std::chrono::milliseconds(50));
    EXPECT_EQ(series.roundTrip(99), std::chrono::milliseconds(99));
    EXPECT_EQ(series.roundTrip(100), std::chrono::milliseconds(100));
}
