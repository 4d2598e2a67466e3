#include "JsonPlaces.h"

#include <gtest/gtest.h>

using micro850::linesOf;

namespace {

using Lines = std::vector<int>;

const char kText[] = "// a plant\n"
                     "{ \"port\":\n"
                     "    {\"baud\": 9600}, /* two\n"
                     "  lines */ \"variables\": [\n"
                     "    {\"tag\": \"A, ]}\\\"\\n\"},\n"
                     "    {\"tag\":\n"
                     "       \"B\", \"a/b~c\": [true,\n"
                     "  null]}\n"
                     "  ]\n"
                     "}\n";

} // namespace

TEST(JsonPlaces, AreTheLinesOfKeysAndElements)
{
    EXPECT_EQ(linesOf(kText, {"", "/port", "/port/baud", "/variables", "/variables/0",
                              "/variables/0/tag", "/variables/1/tag"}),
              (Lines{2, 2, 3, 4, 5, 5, 6}));
}

TEST(JsonPlaces, AreFoundBehindKeysWithTheSignsOfAPointer)
{
    EXPECT_EQ(linesOf(kText, {"/variables/1/a~1b~0c", "/variables/1/a~1b~0c/1"}), (Lines{7, 8}));
}

TEST(JsonPlaces, AreNotFoundWhereThereIsNoSuchValue)
{
    EXPECT_EQ(linesOf(kText, {"/variables/2", "/nope", "/port/baud/0"}), (Lines{0, 0, 0}));
}

TEST(JsonPlaces, AreThoseOfTheLaterOfTwoEqualKeys)
{
    EXPECT_EQ(linesOf("{\"a\": 1,\n\"b\": 2,\n\"a\": 3}", {"/a", "/b"}), (Lines{3, 2}));
}

TEST(JsonPlaces, OfATextWithAMistakeAreFoundUpToThere)
{
    EXPECT_EQ(linesOf("{\"a\": 1,\n\"b\" 2,\n\"c\": 3}", {"/a", "/c"}), (Lines{1, 0}));
    for (const char* text : {"", "{", "[", "{\"", "{\"a", "{\"a\"", "{\"a\":", "[1,", "/*", "//",
                             "{\"a\\", "]", "{1", "[,", "/"})
        EXPECT_EQ(linesOf(text, {"/a/0"}), Lines{0}) << text;
    EXPECT_EQ(linesOf(std::string(100000, '['), {"/0/0"}), Lines{1});
}
