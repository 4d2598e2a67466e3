#include "DeferredValues.h"

#include "fake_driver.h"

#include <gtest/gtest.h>

using namespace micro850::host;
using namespace std::chrono_literals;

namespace {

class DeferredValuesTest : public ::testing::Test
{
protected:
    FakeDriver driver;
    Driver calls{driver.api(), 1, 2};
    const Project project =
        Project::fromText(R"({"variables": [{"tag": "Level", "element": 3}]})", "p.json");
    ValueStore values{project};
    DeferredValues deferred{calls, values};
};

} // namespace

TEST_F(DeferredValuesTest, StoreNothingBeforeAReply)
{
    EXPECT_EQ(deferred.store(), QByteArray());
    EXPECT_EQ(driver.fetches, 0);
}

TEST_F(DeferredValuesTest, StoreTheDriversValuesWithTheTimeOfTheReplyOnce)
{
    driver.stored = QByteArray("\x09\x00", 2);
    deferred.hold({{1, "Level"}, &micro850::cipTypeNamed("INT"), 3, driver.stored, 40ms});
    EXPECT_EQ(driver.fetches, 0);
    EXPECT_FALSE(values.wasRead(0));

    EXPECT_EQ(deferred.store(), driver.stored);
    EXPECT_EQ(values.text(0), QString("9"));
    EXPECT_EQ(values.refreshedAt(0), 40ms);

    EXPECT_EQ(deferred.store(), QByteArray());
    EXPECT_EQ(driver.fetches, 1);
}
