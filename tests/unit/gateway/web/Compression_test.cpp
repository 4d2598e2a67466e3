#include "Compression.h"

#include "JsonList.h"

#include "http_response.h"

#include <gtest/gtest.h>

using namespace micro850::gateway;

namespace {

HttpRequest requestThatTakes(const QByteArray& encodings)
{
    HttpRequest request;
    request.headers.insert("accept-encoding", encodings);
    return request;
}

HttpResponse listOf(int size)
{
    JsonList list;
    list.begin = "{\"values\":[";
    list.size = size;
    list.item = [](int i) { return QByteArray::number(i * 7919); };
    return listResponse(std::move(list));
}

// In pieces of so many bytes; the last result of read().
int readIn(int size, HttpStream& stream, QByteArray& all)
{
    QByteArray piece(size, '\0');
    for (;;) {
        const int got = stream.read(piece.data(), size);
        if (got <= 0)
            return got;
        all += piece.left(got);
    }
}

} // namespace

TEST(Compression, KnowsWhoTakesIt)
{
    for (const char* one : {"gzip", "GZIP", "deflate, gzip", "gzip;q=0.5", "br , gzip ; q=1.0"})
        EXPECT_TRUE(takesGzip(requestThatTakes(one))) << one;
    for (const char* one : {"", "identity", "gzip;q=0", "gzip; q=0.0", "gzipped", "x-gzip;q=1"})
        EXPECT_FALSE(takesGzip(requestThatTakes(one))) << one;
}

TEST(Compression, LeavesWhatIsShortAndWhatIsNoJsonAsItIs)
{
    HttpResponse events = listOf(10000);
    events.type = "text/event-stream";
    for (HttpResponse response : {listOf(3), events}) {
        compress(response, requestThatTakes("gzip"));
        EXPECT_EQ(headerOf(response, "Content-Encoding"), "");
        EXPECT_EQ(headerOf(response, "Vary"), "");
    }
}

TEST(Compression, TellsCachesThatTheBodyDependsOnTheClient)
{
    HttpResponse response = listOf(10000);
    compress(response, requestThatTakes("identity"));
    EXPECT_EQ(headerOf(response, "Vary"), "Accept-Encoding");
    EXPECT_EQ(headerOf(response, "Content-Encoding"), "");
}

TEST(Compression, CompressesAWholeBody)
{
    HttpResponse response = listOf(500);
    ASSERT_FALSE(response.stream);
    const QByteArray plain = response.body;
    compress(response, requestThatTakes("gzip"));
    EXPECT_EQ(headerOf(response, "Content-Encoding"), "gzip");
    EXPECT_LT(response.body.size(), plain.size());
    EXPECT_EQ(unpacked(response.body), plain);
}

TEST(Compression, CompressesALongListWhileItIsRead)
{
    QByteArray plain;
    ASSERT_EQ(readIn(4096, *listOf(50000).stream, plain), HttpStream::kEnd);
    for (const int size : {1, 7, 4096, 1000000}) {
        HttpResponse response = listOf(50000);
        compress(response, requestThatTakes("gzip"));
        QByteArray all;
        EXPECT_EQ(readIn(size, *response.stream, all), HttpStream::kEnd);
        EXPECT_EQ(response.stream->read(all.data(), 1), HttpStream::kEnd);
        EXPECT_EQ(unpacked(all), plain) << size;
        EXPECT_LT(all.size(), plain.size() / 2);
    }
}

TEST(Compression, BreaksWithAListThatCannotBeFinished)
{
    JsonList list;
    list.begin = "[";
    list.size = 100000;
    list.item = [](int i) { return QByteArray::number(i); };
    list.isValid = [] { return false; };
    HttpResponse response = listResponse(std::move(list));
    compress(response, requestThatTakes("gzip"));
    QByteArray all;
    EXPECT_EQ(readIn(4096, *response.stream, all), HttpStream::kBroken);
}
