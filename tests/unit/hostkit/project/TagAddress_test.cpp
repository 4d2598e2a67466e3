#include "TagAddress.h"

#include "UserError.h"

#include <gtest/gtest.h>

using micro850::host::Assignment;
using micro850::host::TagAddress;

namespace {

template<typename Parsed> std::string complaint(const char* text)
{
    try {
        Parsed::fromText(text);
    } catch (const micro850::UserError& error) {
        return error.what();
    }
    return "none";
}

} // namespace

TEST(TagAddress, NamesATagAnElementOrARun)
{
    const TagAddress tag = TagAddress::fromText("Line1.Speed");
    EXPECT_EQ(tag.tag, QString("Line1.Speed"));
    EXPECT_EQ(tag.elementName(0), QString("Line1.Speed"));
    const TagAddress element = TagAddress::fromText("Level[65535]");
    EXPECT_EQ(element.element, 65535);
    EXPECT_EQ(element.elements, 1);
    const TagAddress run = TagAddress::fromText("Level[3..9]");
    EXPECT_EQ(run.element, 3);
    EXPECT_EQ(run.elements, 7);
    EXPECT_EQ(run.elementName(2), QString("Level[5]"));
}

TEST(TagAddress, KeepsAPercentSignAndADigitInATagsName)
{
    const TagAddress run = TagAddress::fromText("Fill%2[46..48]");
    EXPECT_EQ(run.elementName(1), QString("Fill%2[47]"));
    EXPECT_EQ(run.text(), QString("Fill%2[46..48]"));
}

TEST(TagAddress, RefusesATextThatIsNotATagAndShowsTheForm)
{
    for (const char* text : {"", "[3]", "A[", "A[]", "A[x]", "A[-1]", "A[1]B", "two words", "A=1"})
    {
        EXPECT_EQ(complaint<TagAddress>(text), '"' + std::string(text) +
                                                   "\" is not a tag (write TAG, TAG[INDEX] or "
                                                   "TAG[FIRST..LAST])");
    }
}

TEST(TagAddress, RefusesAnIndexThatNoControllerHas)
{
    EXPECT_EQ(complaint<TagAddress>("A[65536]"),
              "\"A[65536]\": the index 65536 is not allowed (0 to 65535)");
    EXPECT_EQ(complaint<TagAddress>("A[99999999999]"),
              "\"A[99999999999]\": the index 99999999999 is not allowed (0 to 65535)");
    EXPECT_EQ(complaint<TagAddress>("A[5..4]"),
              "\"A[5..4]\": the last index is before the first (write TAG[FIRST..LAST])");
}

TEST(Assignment, SplitsAtTheFirstEqualsSign)
{
    const Assignment assignment = Assignment::fromText("Name[2]=a=b");
    EXPECT_EQ(assignment.address.element, 2);
    EXPECT_EQ(assignment.value, QString("a=b"));
    EXPECT_EQ(Assignment::fromText("Name=").value, QString());
}

TEST(Assignment, NeedsAValue)
{
    EXPECT_EQ(complaint<Assignment>("Speed"),
              "\"Speed\" is not a write (write TAG=VALUE or TAG[INDEX]=VALUE)");
}

TEST(Assignment, HasOneValueForAllElementsOfARunOrOneForEach)
{
    const Assignment one = Assignment::fromText("A[2..4]=7");
    EXPECT_EQ(one.valuesFor(one.address), (QStringList{"7", "7", "7"}));
    const Assignment each = Assignment::fromText("A[2..4]=7,-8,9");
    EXPECT_EQ(each.valuesFor(each.address), (QStringList{"7", "-8", "9"}));
    const Assignment text = Assignment::fromText("Name=a,b");
    EXPECT_EQ(text.valuesFor(text.address), QStringList("a,b"));
}

TEST(Assignment, RefusesAnotherNumberOfValuesThanElements)
{
    const Assignment assignment = Assignment::fromText("A[2..4]=7,8");
    try {
        assignment.valuesFor(assignment.address);
        FAIL() << "nothing was refused";
    } catch (const micro850::UserError& error) {
        EXPECT_STREQ(error.what(), "\"A[2..4]=7,8\": 2 values for 3 elements (write one for all, "
                                   "or one for each)");
    }
}
