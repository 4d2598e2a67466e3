#include "Keyboard.h"

#include <gtest/gtest.h>

#include <vector>

using micro850::host::Key;
using micro850::host::keysOf;

namespace {

std::vector<Key::Code> codes(const char* bytes)
{
    std::vector<Key::Code> codes;
    for (const Key& key : keysOf(bytes))
        codes.push_back(key.code);
    return codes;
}

using Code = Key::Code;

} // namespace

TEST(Keys, AreReadFromPlainCharacters)
{
    const QList<Key> keys = keysOf("q/");
    ASSERT_EQ(keys.size(), 2);
    EXPECT_EQ(keys.at(0).code, Code::Character);
    EXPECT_EQ(keys.at(0).character, QChar('q'));
    EXPECT_EQ(keys.at(1).character, QChar('/'));
}

TEST(Keys, AreReadFromCharactersOfUtf8)
{
    const QList<Key> keys = keysOf("a\xC3\xBC\xE6\xB8\xA9");
    ASSERT_EQ(keys.size(), 3);
    EXPECT_EQ(keys.at(1).character, QChar(0xFC));
    EXPECT_EQ(keys.at(2).character, QChar(0x6E29));
}

TEST(Keys, AreNoCharactersWhenATerminalWouldObeyThem)
{
    EXPECT_EQ(codes("\x01\xC2\x9B\xE2\x80\xAE\xFF\xC3"),
              (std::vector<Code>{Code::Other, Code::Other, Code::Other, Code::Other, Code::Other}));
}

TEST(Keys, AreReadFromTheEscapeSequencesOfBothKindsOfTerminals)
{
    EXPECT_EQ(codes("\x1b[A\x1bOA"), (std::vector<Code>{Code::Up, Code::Up}));
    EXPECT_EQ(codes("\x1b[5~\x1b[6~"), (std::vector<Code>{Code::PageUp, Code::PageDown}));
    EXPECT_EQ(codes("\x1b[H\x1b[4~"), (std::vector<Code>{Code::Home, Code::End}));
}

TEST(Keys, AreEscapeForASingleEscapeByte)
{
    EXPECT_EQ(codes("\x1b"), std::vector<Code>{Code::Escape});
    EXPECT_EQ(codes("\x1bq"), (std::vector<Code>{Code::Escape, Code::Character}));
}

TEST(Keys, AreOtherForAnUnknownEscapeSequence)
{
    EXPECT_EQ(codes("\x1b[15~q"), (std::vector<Code>{Code::Other, Code::Character}));
    EXPECT_EQ(codes("\x1b[1;5Aq"), (std::vector<Code>{Code::Other, Code::Character}));
    EXPECT_EQ(codes("\x1b["), std::vector<Code>{Code::Other});
    EXPECT_EQ(codes("\x01"), std::vector<Code>{Code::Other});
}
