#include "HttpText.h"

#include "PeerAddress.h"

#include <gtest/gtest.h>

using namespace micro850::gateway;

namespace {

TEST(DecodedPath, GivesThePartsBetweenTheSlashes)
{
    EXPECT_EQ(decodedPath("/"), QStringList());
    EXPECT_EQ(decodedPath("/api/v1"), QStringList({"api", "v1"}));
    EXPECT_EQ(decodedPath("/api/"), QStringList({"api", ""}));
    EXPECT_EQ(decodedPath("//x"), QStringList({"", "x"}));
    EXPECT_EQ(decodedPath("/a%2Fb%2e%2E"), QStringList({"a/b.."}));
    EXPECT_EQ(decodedPath("/../.%2e"), QStringList({"..", ".."}));
    EXPECT_EQ(decodedPath("/a+b%2B%20"), QStringList({"a+b+ "}));
    EXPECT_EQ(decodedPath("/%3Cimg%20onerror=x%3E"), QStringList({"<img onerror=x>"}));
    EXPECT_EQ(decodedPath("/F%C3%BCllstand"), QStringList({QString::fromUtf8("Füllstand")}));
    EXPECT_EQ(decodedPath("/%EF%BB%BFx"), QStringList({QString(QChar(0xFEFF)) + "x"}));
}

TEST(DecodedPath, RefusesWhatIsNoPath)
{
    for (const char* const path : {"", "a", "*", "\\a", "/%", "/%1", "/%g1", "/%1g", "/a%", "/%00",
                                   "/%ff", "/%c3", "/%c0%af", "/%ed%a0%80", "/\xff"})
        EXPECT_FALSE(decodedPath(path)) << path;
    EXPECT_TRUE(decodedPath(QByteArray("/a").repeated(16)));
    EXPECT_FALSE(decodedPath(QByteArray("/a").repeated(17)));
}

TEST(DecodedForm, GivesTheFieldsInTheirOrder)
{
    const auto form = decodedForm("a=1&b=x+y%2B&&a=2&empty=&none&=v&c=d=e&%61=3");
    ASSERT_TRUE(form);
    EXPECT_EQ(form->value("a"), QStringList({"1", "2", "3"}));
    EXPECT_EQ(form->value("b"), QStringList({"x y+"}));
    EXPECT_EQ(form->value("empty"), QStringList({""}));
    EXPECT_EQ(form->value("none"), QStringList({""}));
    EXPECT_EQ(form->value(""), QStringList({"v"}));
    EXPECT_EQ(form->value("c"), QStringList({"d=e"}));
    EXPECT_EQ(form->size(), 6);
    EXPECT_TRUE(decodedForm("")->isEmpty());
}

TEST(DecodedForm, RefusesWhatIsNoForm)
{
    for (const char* const form : {"a=%", "%=a", "a=%0", "a=%00", "a=\xff", "a=%c3&b=1"})
        EXPECT_FALSE(decodedForm(form)) << form;
    EXPECT_TRUE(decodedForm(QByteArray("a&").repeated(99) + "a"));
    EXPECT_FALSE(decodedForm(QByteArray("a&").repeated(100) + "a"));
}

TEST(HttpToken, HasOnlyTheBytesOfATable)
{
    const QByteArray good = "!#$%&'*+-.^_`|~0123456789"
                            "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    for (int byte = 0; byte < 256; ++byte) {
        const QByteArray text(1, static_cast<char>(byte));
        EXPECT_EQ(isHttpToken(text), good.contains(text)) << byte;
        EXPECT_EQ(isHeaderValue(text), byte == 9 || (byte >= 32 && byte != 127)) << byte;
    }
    EXPECT_FALSE(isHttpToken(""));
    EXPECT_TRUE(isHeaderValue(""));
}

TEST(CanonicalAddress, IsOneTextForAnAddress)
{
    EXPECT_EQ(canonicalAddress("10.0.0.1"), QByteArray("10.0.0.1"));
    EXPECT_EQ(canonicalAddress("::FFFF:10.0.0.1"), QByteArray("10.0.0.1"));
    EXPECT_EQ(canonicalAddress("2001:0DB8::0:1"), QByteArray("2001:db8::1"));
    EXPECT_EQ(canonicalAddress("0:0:0:0:0:0:0:1"), QByteArray("::1"));
    for (const char* const text : {"", "localhost", "10.0.0", "10.0.0.256", "10.0.0.1 ", "[::1]",
                                   "::1::", "010.0.0.1x", "10.0.0.1:80", "1", "0x7f.1"})
        EXPECT_FALSE(canonicalAddress(text)) << text;
    EXPECT_FALSE(canonicalAddress(QByteArray("::1\0x", 5)));
}

TEST(LoopbackAddress, IsOneThatOnlyThisMachineReaches)
{
    EXPECT_TRUE(isLoopbackAddress("127.0.0.1"));
    EXPECT_TRUE(isLoopbackAddress("127.255.0.9"));
    EXPECT_TRUE(isLoopbackAddress("::1"));
    for (const char* const address : {"", "128.0.0.1", "12.7.0.1", "10.127.0.1", "0.0.0.0", "::"})
        EXPECT_FALSE(isLoopbackAddress(address)) << address;
}

} // namespace
