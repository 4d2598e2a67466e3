#ifndef MICRO850_TESTS_FAKE_CONTROLLER_H
#define MICRO850_TESTS_FAKE_CONTROLLER_H

#include "fake_line.h"

#include <QtCore/QMap>
#include <QtCore/QVector>

/// A controller at the other end of a FakeLine, written from the protocol and independent of the
/// simulator. It opens a connection, reads and writes tags, and refuses tags that it does not have.
/// It answers one millisecond after the request.
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
    /// While true, it answers nothing.
    bool silent = false;
    /// Forgets its connections, as a power cycle does.
    void forgetConnections()
    {
        m_connected = false;
        m_open.clear();
    }
    /// Connections that are open: connection serial number, vendor and originator serial number.
    QList<QByteArray> open() const { return m_open; }
    /// Another host opens a connection.
    void openOther(const QByteArray& key) { m_open.append(key); }
    /// How many connections can be open.
    int connectionLimit = 1000;
    /// True: it refuses to open a connection that is open. False: the new one replaces it.
    bool refusesOpenAgain = false;
    /// The keys of all requests to open a connection, in order.
    std::vector<QByteArray> opened;
    /// The CIP parts of all requests to close a connection, in order.
    std::vector<std::string> closed;
    /// Called with each reply before it is sent; may change it, or clear it to send nothing.
    std::function<void(const Request&, QByteArray& reply)> onReply;

    /// The number of requests for this service; for this tag only, if one is given.
    int count(quint8 service, const char* tag = nullptr) const;

private:
    void handlePiece(const QByteArray& piece);
    QByteArray replyTo(const QByteArray& data, Request& request);
    QByteArray close(const QByteArray& data, quint16 tns);
    QByteArray replyToConnected(const QByteArray& data, Request& request);
    QByteArray read(const Request& request) const;
    QByteArray write(const Request& request, const QByteArray& value);

    FakeLine& m_line;
    bool m_connected = false;
    QList<QByteArray> m_open;
};

#endif
