#ifndef MICRO850_TESTS_HTTP_RESPONSE_H
#define MICRO850_TESTS_HTTP_RESPONSE_H

#include "HttpMessage.h"

#include <QtCore/QProcess>

#include <gtest/gtest.h>

/// The header of a response; several of the name in a line each.
inline QByteArray headerOf(const micro850::gateway::HttpResponse& response, const QByteArray& name)
{
    QByteArray found;
    for (const micro850::gateway::HttpHeader& header : response.headers) {
        if (header.name == name)
            found += (found.isEmpty() ? "" : "\n") + header.value;
    }
    return found;
}

/// The content of a file of gzip, by another program.
inline QByteArray unpacked(const QByteArray& bytes)
{
    QProcess gzip;
    gzip.start(QStringLiteral("gzip"), {QStringLiteral("-dc")});
    gzip.write(bytes);
    gzip.closeWriteChannel();
    EXPECT_TRUE(gzip.waitForFinished() && gzip.exitCode() == 0);
    return gzip.readAllStandardOutput();
}

#endif
