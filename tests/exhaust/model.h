#ifndef MICRO850_TESTS_EXHAUST_MODEL_H
#define MICRO850_TESTS_EXHAUST_MODEL_H

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QMap>
#include <QtCore/QSet>
#include <QtCore/QString>

#include <array>
#include <vector>

/// The driver as its documents describe it, on the local link. It shares no code with src/.
namespace model {

/// A request in a list or in flight, and the last result.
struct Request
{
    int kind = 0;
    int number = 0;
    int access = 0; ///< 0 read, 1 write
    int remote = 0;
    int link = 0;
    int code = 0;
    QString tag;
    QString element;
    int area = 0;
    int start = 0;
    int station = 0;
    int count = 0;
    int indexed = 0;
    int purpose = 0; ///< 0 cyclic read, 1 one-shot read, 2 write
    QByteArray value;

    bool isSameVariable(const Request& o) const { return kind == o.kind && number == o.number; }
    bool isSamePlace(const Request& o) const
    {
        return station == o.station && area == o.area && start == o.start && count == o.count;
    }
};

/// A frame that waits in the queue, and what is expected of its reply.
struct Transaction
{
    QByteArray frame;
    int sentSize;
    int expected; ///< bytes of the reply, -1 for any number
    int valueAt;
    Request request;
};

struct Station
{
    bool connected = false;
    quint16 number = 0;
    QByteArray connection;
    QMap<QString, QByteArray> values;
    QMap<QString, QByteArray> types;
};

/// Type class 0 to 5 of the first two bytes of a type field.
int classOf(quint8 first, quint8 second);
/// Keeps what an intact reply to the read `request` says about the tag's type and value. The value
/// begins at `valueAt` of the undoubled reply.
void keepValue(Station& station, const Request& request, int valueAt, const QByteArray& reply);

/// Words of the settings record.
enum Word {
    DefaultStation = 6,
    RetryLimit = 7,
    Failures = 8,
    StationsPerVariable = 9,
    Frames = 11,
    Answered = 12,
    Remote = 14,
    LocalLink = 15,
    WriteMode = 16,
    PassComplete = 17,
    Channel = 18,
    Words = 19
};

/// One call of a callback: finish (channel, kind, number, status) or refresh (kind, 1).
typedef std::vector<int> Notice;

/// A variable of the host's cyclic list.
struct Variable
{
    int area;
    QString element;
    QString tag;
    int count;
};

class Driver
{
public:
    // ---- What a host calls

    int addCyclic(const Request& request);
    /// Completes the request as the driver does.
    int addOnce(Request& request);
    int write(const Request& request);
    void enable(int station, bool enabled);
    int rebuild(const QList<Variable>& variables);
    /// The transaction in flight, null for none. A set-up has the given serial number.
    const Transaction* poll(quint32 serial);
    /// `length` bytes of `reply` were received; a resend of a set-up has the given serial number.
    /// A reply that is stored is undoubled.
    int answer(QByteArray& reply, int length, quint32 serial);
    int fetch(const QString& tag, const QString& element, int station, int count, QByteArray& out);

    // ---- Everything it knows

    std::array<int, Words> words{};
    QSet<QString> indexedTags;
    QList<Request> cyclic, writes, once;
    QList<Transaction> queue;
    QMap<int, int> disabled;
    QMap<int, Station> stations;
    Request result;
    int list = 100; ///< list of the last request: 0 cyclic, 1 write, 2 one-shot, 100 none yet
    int writesInARow = 0, onceInARow = 0, answeredInPass = 0;
    bool failed = false;
    int looks = 0; ///< looks in a row at a reply that is not complete, or resends of a set-up
    std::vector<Notice> notices;

private:
    void address(Request& request);
    QByteArray& typeOf(int station, const QString& tag);
    bool isConnected(int station);
    bool isTypeKnown(const Request& request);
    void dropDisabled(QList<Request>& requests) const;
    void serveWrite(quint32 serial);
    void serveOnce(quint32 serial);
    void serveCyclic(quint32 serial);
    void read(const Request& request, quint32 serial);
    void setUp(int station, quint32 serial);
    void sendRead(const Request& request);
    void sendWrite(Request& request);
    void send(const QByteArray& frame, int expected, int valueAt, const Request& request);
    void answerSetUp(const QByteArray& reply, quint32 serial);
    void look(const QByteArray& reply, int length);
    int codeFor(QByteArray& reply, int length);
    void succeed(int code);
    void fail(int code);
    void complete();
    void retire(QList<Request>& requests);
    void dropAfterFailure();
    void advance(int station);
};

} // namespace model

#endif
