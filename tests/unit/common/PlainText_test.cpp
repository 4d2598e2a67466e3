#include "PlainText.h"

#include <gtest/gtest.h>

#include <cstdlib>

using namespace micro850;

namespace {

/// The variables that name a locale, as they were, at the end of a test.
class LocaleHasUnicode : public ::testing::Test
{
protected:
    ~LocaleHasUnicode() override
    {
        for (const auto& [name, value] : m_before)
            value.empty() ? ::unsetenv(name) : ::setenv(name, value.c_str(), 1);
    }
    static bool with(const char* all, const char* type, const char* language)
    {
        ::setenv("LC_ALL", all, 1);
        ::setenv("LC_CTYPE", type, 1);
        ::setenv("LANG", language, 1);
        return localeHasUnicode();
    }

private:
    static std::string valueOf(const char* name)
    {
        const char* const value = std::getenv(name);
        return value ? value : "";
    }
    const std::pair<const char*, std::string> m_before[3] = {{"LC_ALL", valueOf("LC_ALL")},
                                                             {"LC_CTYPE", valueOf("LC_CTYPE")},
                                                             {"LANG", valueOf("LANG")}};
};

} // namespace

TEST(PlainText, HasASubstituteForWhatUnitsAndNamesAreMadeOf)
{
    EXPECT_EQ(plainText("21.5 \u00B0C, 3 m\u00B2 \u00B5m \u2126"), "21.5 deg C, 3 m2 um Ohm");
    EXPECT_EQ(plainText("F\u00FCllst\u00E4nde \u2026 gro\u00DF"), "Fuellstaende ... gross");
    EXPECT_EQ(plainText("\u6E29\u5EA6 5"), "?? 5");
    EXPECT_EQ(plainText("Speed = 1234\n"), "Speed = 1234\n");
    EXPECT_EQ(plainText("cut \xC3"), "cut ?");
}

TEST_F(LocaleHasUnicode, AsTheFirstVariableThatIsSetSays)
{
    EXPECT_TRUE(with("", "", "de_DE.UTF-8"));
    EXPECT_TRUE(with("", "en_US.utf8", "C"));
    EXPECT_FALSE(with("C", "en_US.UTF-8", "en_US.UTF-8"));
    EXPECT_FALSE(with("", "", ""));
}
