#include "ChangeFilter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

using micro850::CipType;
using micro850::cipTypeNamed;
using micro850::Duration;
using namespace micro850::host;

namespace {

template<typename Number> QByteArray bytesOf(std::initializer_list<Number> numbers)
{
    QByteArray bytes;
    for (const Number number : numbers)
        bytes.append(reinterpret_cast<const char*>(&number), sizeof number); // this machine's order
    return bytes;
}

/// One variable and its filter.
class Filtered
{
public:
    Filtered(const char* type, double deadband, int heartbeatMs = 0)
        : m_type(&cipTypeNamed(type)), m_filter(variables(deadband, heartbeatMs))
    {
    }
    template<typename Number>
    bool tells(std::initializer_list<Number> numbers, Quality quality = Quality::Good,
               const char* error = "")
    {
        return m_filter.isNews(0, {m_type, bytesOf(numbers), quality, error}, Duration(0));
    }
    bool tellsText(const QByteArray& bytes)
    {
        return m_filter.isNews(0, {m_type, bytes, Quality::Good, QString()}, Duration(0));
    }

private:
    static QVector<Variable> variables(double deadband, int heartbeatMs)
    {
        Variable variable;
        variable.deadband = deadband;
        variable.heartbeatMs = heartbeatMs;
        return {variable};
    }
    const CipType* m_type;
    ChangeFilter m_filter;
};

} // namespace

TEST(ChangeFilter, TellsTheFirstStateEvenWithoutAValue)
{
    ChangeFilter filter(QVector<Variable>(2));
    EXPECT_TRUE(filter.isNews(0, {}, Duration(0)));
    EXPECT_FALSE(filter.isNews(0, {}, Duration(1)));
    EXPECT_TRUE(filter.isNews(1, {}, Duration(1)));
}

TEST(ChangeFilter, TellsEveryChangeWithoutADeadBand)
{
    Filtered value("DINT", 0);
    EXPECT_TRUE(value.tells({7}));
    EXPECT_FALSE(value.tells({7}));
    EXPECT_TRUE(value.tells({8}));
}

TEST(ChangeFilter, TellsAnotherTypeWithTheSameBytes)
{
    ChangeFilter filter(QVector<Variable>(1));
    const QByteArray bytes = bytesOf({-1});
    const auto tells = [&](const char* type) {
        return filter.isNews(0, {&cipTypeNamed(type), bytes, Quality::Good, QString()},
                             Duration(0));
    };
    EXPECT_TRUE(tells("DINT"));
    EXPECT_FALSE(tells("DINT"));
    EXPECT_TRUE(tells("UDINT")) << "4294967295 instead of -1";
}

// Without a type nobody knows by how much they differ.
TEST(ChangeFilter, TellsEveryChangeOfBytesWithoutAType)
{
    Variable variable;
    variable.deadband = 10;
    const QVector<Variable> variables = {variable};
    ChangeFilter filter(variables);
    const auto tells = [&](const char* bytes) {
        return filter.isNews(0, {nullptr, bytes, Quality::Good, QString()}, Duration(0));
    };
    EXPECT_TRUE(tells("ab"));
    EXPECT_FALSE(tells("ab"));
    EXPECT_TRUE(tells("ac"));
}

TEST(ChangeFilter, CountsADriftFromTheValueToldLast)
{
    Filtered value("DINT", 10);
    EXPECT_TRUE(value.tells({100}));
    EXPECT_FALSE(value.tells({104}));
    EXPECT_FALSE(value.tells({110})); // 10 is still within the band
    EXPECT_TRUE(value.tells({111}));
    EXPECT_FALSE(value.tells({101}));
    EXPECT_TRUE(value.tells({100}));
}

TEST(ChangeFilter, ComparesIntegersOf64BitsExactly)
{
    Filtered value("LINT", 1);
    EXPECT_TRUE(value.tells({9007199254740992LL}));
    EXPECT_FALSE(value.tells({9007199254740993LL}));
    EXPECT_TRUE(value.tells({9007199254740994LL}));
}

TEST(ChangeFilter, AppliesTheDeadBandToTheNumberThatIsShown)
{
    Variable variable;
    variable.gain = 0.1;
    variable.deadband = 0.2;
    ChangeFilter filter({variable});
    const CipType& type = cipTypeNamed("INT");
    const auto tells = [&](qint16 number) {
        return filter.isNews(0, {&type, bytesOf({number}), Quality::Good, QString()}, Duration(0));
    };
    EXPECT_TRUE(tells(9)); // 0.9
    EXPECT_FALSE(tells(11));
    EXPECT_TRUE(tells(12));
}

TEST(ChangeFilter, TellsNumbersThatBecomeOrLeaveInfinityAndNaN)
{
    const double none = std::nan("");
    const double infinite = std::numeric_limits<double>::infinity();
    Filtered value("LREAL", 1e9);
    EXPECT_TRUE(value.tells({1.0}));
    EXPECT_TRUE(value.tells({none}));
    EXPECT_FALSE(value.tells({-none}));
    EXPECT_TRUE(value.tells({infinite}));
    EXPECT_FALSE(value.tells({infinite}));
    EXPECT_TRUE(value.tells({-infinite}));
    EXPECT_TRUE(value.tells({1.0}));
    EXPECT_FALSE(value.tells({2.0}));
}

TEST(ChangeFilter, TellsAnArrayWhenAnyElementLeavesItsBand)
{
    Filtered value("INT", 5);
    EXPECT_TRUE(value.tells<qint16>({0, 100}));
    EXPECT_FALSE(value.tells<qint16>({5, 95}));
    EXPECT_TRUE(value.tells<qint16>({5, 106}));
    EXPECT_FALSE(value.tells<qint16>({0, 106})); // both count from what was told
    EXPECT_TRUE(value.tells<qint16>({-1, 106}));
}

TEST(ChangeFilter, TellsEveryChangeOfTextsAndBits)
{
    Filtered text("SHORT_STRING", 50);
    EXPECT_TRUE(text.tellsText("\x01"
                               "a"));
    EXPECT_TRUE(text.tellsText("\x01"
                               "b"));
    EXPECT_TRUE(text.tellsText("\x02"
                               "ba"));
    Filtered flag("BOOL", 50);
    EXPECT_TRUE(flag.tells<quint8>({0}));
    EXPECT_TRUE(flag.tells<quint8>({1}));
    Filtered word("WORD", 50);
    EXPECT_TRUE(word.tells<quint16>({1}));
    EXPECT_TRUE(word.tells<quint16>({2}));
}

TEST(ChangeFilter, TellsAnotherQualityOrErrorAtOnceAndTheBandStartsThere)
{
    Filtered value("DINT", 10);
    EXPECT_TRUE(value.tells({100}));
    EXPECT_TRUE(value.tells({105}, Quality::Stale));
    EXPECT_FALSE(value.tells({115}, Quality::Stale));
    EXPECT_TRUE(value.tells({116}, Quality::Stale));
    EXPECT_TRUE(value.tells({116}, Quality::Stale, "no answer"));
    EXPECT_TRUE(value.tells({116}, Quality::Stale, "refused"));
    EXPECT_FALSE(value.tells({116}, Quality::Stale, "refused"));
    EXPECT_TRUE(value.tells({116}));
}

TEST(ChangeFilter, CountsAChangeFromTheValueThatAHeartbeatTold)
{
    const auto ms = [](int time) { return std::chrono::milliseconds(time); };
    QVector<Variable> variables(1);
    variables[0].deadband = 10;
    variables[0].heartbeatMs = 1000;
    ChangeFilter filter(variables);
    const auto tells = [&](qint16 value, int at) {
        return filter.isNews(0, {&cipTypeNamed("INT"), bytesOf({value}), Quality::Good, QString()},
                             ms(at));
    };
    EXPECT_TRUE(tells(100, 0));
    EXPECT_FALSE(tells(109, 500));
    EXPECT_EQ(filter.popHeartbeats(ms(1000)), QVector<int>{0}); // tells 109
    EXPECT_FALSE(tells(119, 1100));
    EXPECT_TRUE(tells(120, 1200));
}

TEST(ChangeFilter, TellsAnUnchangedValueWhenItsHeartbeatIsDue)
{
    const auto ms = [](int time) { return std::chrono::milliseconds(time); };
    QVector<Variable> variables(3);
    variables[0].heartbeatMs = 1000;
    variables[1].heartbeatMs = 1500;
    ChangeFilter filter(variables);
    EXPECT_EQ(filter.nextHeartbeat(), std::nullopt);
    EXPECT_EQ(filter.popHeartbeats(ms(5000)), QVector<int>()); // nothing was told yet
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(filter.isNews(i, {}, ms(0)));
    EXPECT_EQ(filter.nextHeartbeat(), ms(1000));
    EXPECT_EQ(filter.popHeartbeats(ms(999)), QVector<int>());
    EXPECT_EQ(filter.popHeartbeats(ms(1000)), QVector<int>{0});
    EXPECT_TRUE(filter.isNews(1, {nullptr, {}, Quality::Never, "refused"}, ms(1200)));
    EXPECT_EQ(filter.popHeartbeats(ms(2000)), QVector<int>{0});
    EXPECT_EQ(filter.popHeartbeats(ms(2700)), QVector<int>{1}); // from when it was told last
    // After a long pause each is told once, not once for every interval of it.
    EXPECT_EQ(filter.popHeartbeats(ms(60000)), (QVector<int>{0, 1}));
    EXPECT_EQ(filter.popHeartbeats(ms(60000)), QVector<int>());
}

TEST(ChangeFilter, TellsAHeartbeatEarlyToWhoAsksOnceInAWhile)
{
    const auto ms = [](int time) { return std::chrono::milliseconds(time); };
    QVector<Variable> variables(1);
    variables[0].heartbeatMs = 1000;
    ChangeFilter filter(variables);
    ASSERT_TRUE(filter.isNews(0, {}, ms(0)));
    EXPECT_EQ(filter.popHeartbeats(ms(899), ms(100)), QVector<int>());
    EXPECT_EQ(filter.popHeartbeats(ms(900), ms(100)), QVector<int>{0});
    EXPECT_EQ(filter.popHeartbeats(ms(1000), ms(100)), QVector<int>());
    EXPECT_EQ(filter.popHeartbeats(ms(1000), ms(5000)), QVector<int>{0}); // once, not for ever
}
