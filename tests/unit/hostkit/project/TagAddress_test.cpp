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

TEST(TagAddress, NamesTheElementsUpToTheEnd)
{
    for (const char* text : {"Level[]", "Level[0..]"}) {
        const TagAddress all = TagAddress::fromText(text);
        EXPECT_TRUE(all.toEnd);
        EXPECT_EQ(all.element, 0);
        EXPECT_EQ(all.text(), QString("Level[]"));
    }
    const TagAddress rest = TagAddress::fromText("Level[5..]");
    EXPECT_TRUE(rest.toEnd);
    EXPECT_EQ(rest.element, 5);
    EXPECT_EQ(rest.text(), QString("Level[5..]"));
    EXPECT_EQ(rest.exactText(), QString("Level[5..]"));
    EXPECT_FALSE(TagAddress::fromText("Level[5]").toEnd);
    EXPECT_FALSE(TagAddress::fromText("Level[5..9]").toEnd);
}

TEST(TagAddress, NamesABitByTheDecimalNumberBehindTheLastDot)
{
    const TagAddress bit = TagAddress::fromText("Timer.Word.63");
    EXPECT_EQ(bit.tag, QString("Timer.Word"));
    EXPECT_EQ(bit.bit, 63);
    EXPECT_EQ(bit.text(), QString("Timer.Word.63"));
    const TagAddress ofElement = TagAddress::fromText("Word[2].3");
    EXPECT_EQ(ofElement.tag, QString("Word"));
    EXPECT_EQ(ofElement.element, 2);
    EXPECT_EQ(ofElement.bit, 3);
    EXPECT_EQ(ofElement.exactElementName(0), QString("Word[2].3"));
    const TagAddress ofRun = TagAddress::fromText("Word[2..5].0");
    EXPECT_EQ(ofRun.text(), QString("Word[2..5].0"));
    EXPECT_EQ(ofRun.elementName(1), QString("Word[3].0"));
    EXPECT_EQ(TagAddress::fromText("Word[].7").text(), QString("Word[].7"));
    for (const char* member : {"Timer.PRE", "Timer.1ST", "Timer.0x1", "Timer.", "A.3b"}) {
        const TagAddress whole = TagAddress::fromText(member);
        EXPECT_EQ(whole.tag, QString(member));
        EXPECT_LT(whole.bit, 0);
    }
}

TEST(TagAddress, RefusesABitThatNoTypeHas)
{
    for (const char* bit : {"64", "850", "99999999999"}) {
        EXPECT_EQ(complaint<TagAddress>((std::string("A.") + bit).c_str()),
                  std::string("\"A.") + bit + "\": no type has a bit " + bit +
                      " (0 to 63; a name that ends in .NUMBER stands in double quotes)");
    }
    EXPECT_EQ(complaint<TagAddress>(".3"),
              "\".3\" is not a tag (write TAG, TAG[INDEX] or TAG[FIRST..LAST])");
}

TEST(TagAddress, NamesATagThatEndsLikeABitInQuotes)
{
    const TagAddress tag = TagAddress::fromText("\"Line.850\"");
    EXPECT_EQ(tag.tag, QString("Line.850"));
    EXPECT_LT(tag.bit, 0);
    EXPECT_EQ(tag.text(), QString("\"Line.850\""));
    EXPECT_EQ(tag.exactText(), QString("Line.850"));
    EXPECT_EQ(TagAddress::fromText("\"Line.850\"[2].3").text(), QString("\"Line.850\"[2].3"));
    EXPECT_EQ(Assignment::fromText("\"Line.850\"=3").address.tag, QString("Line.850"));
}

TEST(TagAddress, KeepsAPercentSignAndADigitInATagsName)
{
    const TagAddress run = TagAddress::fromText("Fill%2[46..48]");
    EXPECT_EQ(run.elementName(1), QString("Fill%2[47]"));
    EXPECT_EQ(run.text(), QString("Fill%2[46..48]"));
}

TEST(TagAddress, RefusesATextThatIsNotATagAndShowsTheForm)
{
    for (const char* text : {"", "[3]", "A[", "A[x]", "A[-1]", "A[1]B", "two words", "A=1"}) {
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

TEST(Assignment, HasOneValueForEachElementOfANameWithoutIndex)
{
    TagAddress variable; // as the project makes it
    variable.tag = "Tank";
    variable.indexed = true;
    variable.elements = 3;
    const auto refusal = [&variable](const char* text) {
        try {
            Assignment::fromText(text).valuesFor(variable);
        } catch (const micro850::UserError& error) {
            return std::string(error.what());
        }
        return std::string("none");
    };
    EXPECT_EQ(Assignment::fromText("Tank=7,-8,9").valuesFor(variable),
              (QStringList{"7", "-8", "9"}));
    EXPECT_EQ(Assignment::fromText("Tank[0..2]=7").valuesFor(variable),
              (QStringList{"7", "7", "7"}));
    EXPECT_EQ(refusal("Tank=7"), "Tank: has 3 elements: 1 value is not enough (write Tank[0..2]=7 "
                                 "for all, or one value for each)");
    EXPECT_EQ(refusal("Tank=7,8"), "Tank: has 3 elements: 2 values are not enough (write "
                                   "Tank[0..2]=VALUE for all, or one value for each)");
    EXPECT_EQ(refusal("Tank=7,8,9,10"), "Tank: has 3 elements: 4 values are too many (write "
                                        "Tank[0..2]=VALUE for all, or one value for each)");
    variable.elements = 1;
    EXPECT_EQ(Assignment::fromText("Tank=a,b").valuesFor(variable), QStringList("a,b"));
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

namespace {

// The names of a project's variables.
bool isVariable(const QString& name)
{
    static const QStringList names = {"Tank",
                                      "Tank 1",
                                      QString::fromUtf8("F\u00fcllstand"),
                                      "A",
                                      "A=1",
                                      "Level[2]",
                                      "\"odd\" \\name",
                                      " ",
                                      "Valve 1.2",
                                      "Fill = 5"};
    return names.contains(name);
}

} // namespace

TEST(ShownName, IsInQuotesWhenItCouldBeTakenForSomethingElse)
{
    using micro850::host::shownName;
    for (const char* clear : {"Speed", "Line1.Speed", "Tank 1", "F\u00fcllstand", "say \"ready\"",
                              "back\\slash", "Program:Main", "Speed (rpm)"})
        EXPECT_EQ(shownName(clear), QString(clear));
    EXPECT_EQ(shownName("Fill = 5"), QString("\"Fill = 5\""));
    EXPECT_EQ(shownName("A=1"), QString("\"A=1\""));
    EXPECT_EQ(shownName("Level[2]"), QString("\"Level[2]\""));
    EXPECT_EQ(shownName(" A"), QString("\" A\""));
    EXPECT_EQ(shownName("A "), QString("\"A \""));
    EXPECT_EQ(shownName("A: 5"), QString("\"A: 5\""));
    EXPECT_EQ(shownName("\"A\" = \\"), QString(R"("\"A\" = \\")"));
}

TEST(TagAddress, FindsVariablesWithAnyName)
{
    const auto parsed = [](const char* text) {
        const TagAddress address = TagAddress::fromText(text, isVariable);
        return address.tag + '|' + address.text();
    };
    EXPECT_EQ(parsed("Tank 1"), QString("Tank 1|Tank 1"));
    EXPECT_EQ(parsed("Tank 1[3]"), QString("Tank 1|Tank 1[3]"));
    EXPECT_EQ(parsed("Tank 1[3..5]"), QString("Tank 1|Tank 1[3..5]"));
    EXPECT_EQ(parsed("F\u00fcllstand[2]"), QString("F\u00fcllstand|F\u00fcllstand[2]"));
    EXPECT_EQ(parsed("Fill = 5"), QString("Fill = 5|\"Fill = 5\""));
    EXPECT_EQ(parsed("\"Fill = 5\"[1]"), QString("Fill = 5|\"Fill = 5\"[1]"));
    EXPECT_EQ(parsed(" "), QString(" |\" \""));
}

TEST(TagAddress, TakesTheLongestNameOfAVariableBeforeAnIndex)
{
    const TagAddress named = TagAddress::fromText("Level[2]", isVariable);
    EXPECT_EQ(named.tag, QString("Level[2]"));
    EXPECT_FALSE(named.indexed);
    const TagAddress element = TagAddress::fromText("\"Level\"[2]", isVariable);
    EXPECT_EQ(element.tag, QString("Level"));
    EXPECT_EQ(element.element, 2);
    EXPECT_EQ(TagAddress::fromText("Level[2][1]", isVariable).text(), QString("\"Level[2]\"[1]"));
}

TEST(TagAddress, FindsAVariableWhoseNameEndsLikeABit)
{
    const TagAddress variable = TagAddress::fromText("Valve 1.2", isVariable);
    EXPECT_EQ(variable.tag, QString("Valve 1.2"));
    EXPECT_LT(variable.bit, 0);
    EXPECT_EQ(variable.text(), QString("Valve 1.2"));
    const TagAddress bit = TagAddress::fromText("Valve 1.2.5", isVariable);
    EXPECT_EQ(bit.tag, QString("Valve 1.2"));
    EXPECT_EQ(bit.bit, 5);
    EXPECT_EQ(TagAddress::fromText("Level[2].7", isVariable).tag, QString("Level[2]"));
    EXPECT_EQ(Assignment::fromText("Valve 1.2=1", isVariable).address.tag, QString("Valve 1.2"));
    EXPECT_EQ(Assignment::fromText("A=1.7=1", isVariable).address.text(), QString("\"A=1\".7"));
}

TEST(TagAddress, ParsesEveryNameThatItShows)
{
    for (const char* name : {"Tank 1", "A=1", "Level[2]", "\"odd\" \\name", " ", "Fill = 5"}) {
        const QString shown = micro850::host::shownName(name);
        EXPECT_EQ(TagAddress::fromText(shown, isVariable).tag, QString(name));
        EXPECT_EQ(TagAddress::fromText(shown + "[7]", isVariable).element, 7);
        EXPECT_EQ(Assignment::fromText(shown + "=x=y", isVariable).value, QString("x=y"));
    }
}

TEST(TagAddress, RefusesAQuotedNameThatIsNeitherVariableNorTag)
{
    for (const char* text : {"\"Tank 7\"", "\"", "\"Speed", "\"Speed\"x", "\"\"", "\"A\\\""}) {
        EXPECT_THROW(TagAddress::fromText(text, isVariable), micro850::UserError) << text;
        EXPECT_THROW(Assignment::fromText(QString(text) + "=1", isVariable), micro850::UserError)
            << text;
    }
}

TEST(Assignment, SplitsBehindTheLongestNameOfAVariable)
{
    const auto parsed = [](const char* text) {
        const Assignment assignment = Assignment::fromText(text, isVariable);
        return assignment.address.text() + '|' + assignment.value;
    };
    EXPECT_EQ(parsed("A=1"), QString("A|1"));
    EXPECT_EQ(parsed("A=1=5"), QString("\"A=1\"|5"));
    EXPECT_EQ(parsed("A=1[2]=5"), QString("\"A=1\"[2]|5"));
    EXPECT_EQ(parsed("A=12=5"), QString("A|12=5"));
    EXPECT_EQ(parsed("\"A\"=1=5"), QString("A|1=5"));
    EXPECT_EQ(parsed("Tank 1[0..1]=5,6"), QString("Tank 1[0..1]|5,6"));
    EXPECT_EQ(parsed("Fill = 5= 6"), QString("\"Fill = 5\"| 6"));
    EXPECT_EQ(parsed("Speed=a=b"), QString("Speed|a=b"));
}
