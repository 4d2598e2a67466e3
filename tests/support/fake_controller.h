#ifndef MICRO850_TESTS_FAKE_CONTROLLER_H
#define MICRO850_TESTS_FAKE_CONTROLLER_H

#include "fake_line.h"

#include <QtCore/QMap>
#include <QtCore/QVector>

/// A controller at the other end of a FakeLine, written from the protocol: it connects, reads and
/// writes tags, and refuses what it does not have. It answers one millisecond after the request.
class FakeController
{
public:
    struct Tag
    {
        quint16 type;
        QVector<QByteArray> elements;
    };
    /// A request as the controller understood it.
    struct Request
    {
        quint16 tns;
        quint8 service;
        QByteArray tag;
        quint32 element;
        quint16 count;
    };

    explicit FakeController(FakeLine& line);

    QMap<QByteArray, Tag> tags;
    /// Every request that arrived intact, in order.
    std::vector<Request> requests;
    /// Answers nothing at all while true.
    bool silent = false;
    /// Forgets its connections, as a power cycle does.
    void forgetConnections() { m_connected = false; }
    /// Called with each reply before it is sent; what it leaves is what arrives.
    std::function<void(const Request&, QByteArray& reply)> onReply;

    /// The number of requests for this service, and for this tag where one is named.
    int count(quint8 service, const char* tag = nullptr) const;

private:
    void take(const QByteArray& piece);
    QByteArray answer(const QByteArray& data, Request& request);
    QByteArray answerConnected(const QByteArray& data, Request& request);
    QByteArray read(const Request& request) const;
    QByteArray write(const Request& request, const QByteArray& value);

    FakeLine& m_line;
    bool m_connected = false;
};

#endif
