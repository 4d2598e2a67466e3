#ifndef MICRO850_TESTS_EXHAUST_MODEL_H
#define MICRO850_TESTS_EXHAUST_MODEL_H

#include <QtCore/QByteArray>
#include <QtCore/QMap>
#include <QtCore/QString>

/// What the driver does, as its documents describe it. It shares no code with src/.
namespace model {

/// A request of the host.
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

} // namespace model

#endif
