#include "Prompt.h"

#include <gtest/gtest.h>

using namespace micro850::host;

TEST(CommonPrefix, IsWhatAllWordsBeginWith)
{
    EXPECT_EQ(commonPrefix({"Setpoint", "Set", "Settings"}), "Set");
    EXPECT_EQ(commonPrefix({"Speed"}), "Speed");
    EXPECT_EQ(commonPrefix({"a", "b"}), "");
    EXPECT_EQ(commonPrefix({}), "");
}

TEST(InColumns, FillsTheWindowDownwards)
{
    EXPECT_EQ(inColumns({"a", "bb", "c", "d", "e"}, 8), (QStringList{"a   d", "bb  e", "c"}));
    EXPECT_EQ(inColumns({"long name", "b"}, 4), (QStringList{"long name", "b"}));
    EXPECT_EQ(inColumns({}, 80), QStringList());
}

TEST(ShellHistoryFile, IsInTheFolderForStateOrInTheHome)
{
    const QByteArray home = qgetenv("HOME");
    qputenv("HOME", "/home/somebody");
    qputenv("XDG_STATE_HOME", "/state");
    EXPECT_EQ(shellHistoryFile(), "/state/micro850/shell-history");
    qputenv("XDG_STATE_HOME", "relative"); // as the convention says: to be ignored
    EXPECT_EQ(shellHistoryFile(), "/home/somebody/.local/state/micro850/shell-history");
    qunsetenv("XDG_STATE_HOME");
    EXPECT_EQ(shellHistoryFile(), "/home/somebody/.local/state/micro850/shell-history");
    qunsetenv("HOME");
    EXPECT_EQ(shellHistoryFile(), "");
    qputenv("HOME", home);
}
