#include "model.h"

#include "frame_model.h"
#include "wire.h"

#include <algorithm>

namespace model {

namespace {

const int kAnySize = -1;
const int kImpossibleSize = 999;
const quint8 kUnknown = 0xFF;

quint8 byteAt(const QByteArray& bytes, int at)
{
    return at >= 0 && at < bytes.size() ? static_cast<quint8>(bytes.at(at)) : quint8(0);
}

QByteArray byte(quint8 value)
{
    return QByteArray(1, static_cast<char>(value));
}

bool isConfirmed(const QByteArray& type)
{
    return type.size() > 3 && byteAt(type, 3) == 0xFF;
}

int elementSize(int typeClass)
{
    return typeClass == 3 ? 2 : typeClass == 4 ? 4 : typeClass == 5 ? 8 : 1;
}

// Words of 16 bits that one element of the class has in the host's counts.
int wordsOf(int typeClass)
{
    return typeClass == 4 ? 2 : typeClass == 5 ? 4 : 1;
}

// Pads with 00 or cuts.
QByteArray fitted(const QByteArray& bytes, int size)
{
    return bytes.leftJustified(size, '\0', true);
}

QByteArray everySecond(const QByteArray& bytes)
{
    QByteArray low;
    for (int i = 0; i < bytes.size(); i += 2)
        low += bytes.at(i);
    return low;
}

QByteArray openRequest(quint16 number, quint32 serial)
{
    return wire::framed(wire::forwardOpenRequest(number, serial));
}

// The serial number in a Forward_Open request as sent.
quint32 serialOf(const QByteArray& frame)
{
    const QByteArray data = wire::unframed(frame);
    return static_cast<quint32>(byteAt(data, 28) | byteAt(data, 29) << 8 | byteAt(data, 30) << 16);
}

} // namespace

int classOf(quint8 first, quint8 second)
{
    switch (first == 0xA3 ? second : first) {
    case 0xC1:
        return 0;
    case 0xDA:
        return 1;
    case 0xC3:
    case 0xC7:
        return 3;
    case 0xC4:
    case 0xC8:
    case 0xCA:
        return 4;
    case 0xC5:
    case 0xC9:
    case 0xCB:
        return 5;
    default:
        return 2;
    }
}

void keepValue(Station& station, const Request& request, int valueAt, const QByteArray& reply)
{
    const QByteArray plain = frame_model::undoubled(reply);
    const quint8 low = byteAt(plain, 20);
    const quint8 high = byteAt(plain, 21);
    const int typeClass = classOf(low, high);
    QByteArray& type = station.types[request.tag];
    if (!isConfirmed(type))
        type = byte(static_cast<quint8>(typeClass)) + byte(low) + byte(high) + byte(0xFF);
    QByteArray value = plain.mid(valueAt, qMax(0, plain.size() - 4 - valueAt));
    if (typeClass == 1)
        value.remove(0, 1); // the string's length
    if (value.isEmpty())
        return;
    const int from = request.indexed ? request.start * elementSize(typeClass) : 0;
    QByteArray& image = station.values[request.tag];
    if (image.size() < from + value.size())
        image = fitted(image, from + value.size());
    image.replace(from, value.size(), value);
}

// ---- Lists --------------------------------------------------------------------------------------

QByteArray& Driver::typeOf(int station, const QString& tag)
{
    return stations[station].types[tag];
}

void Driver::address(Request& request)
{
    request.indexed = indexedTags.contains(request.tag) ? 1 : 0;
    request.start = request.indexed ? request.element.toInt() : 0;
    request.count = request.indexed ? request.count : 1;
    QByteArray& type = typeOf(request.station, request.tag);
    if (!isConfirmed(type))
        type = byte(kUnknown) + QByteArray(3, '\0');
}

int Driver::addCyclic(const Request& request)
{
    cyclic.append(request);
    return cyclic.size();
}

int Driver::addOnce(Request& request)
{
    request.purpose = 1;
    if (words[StationsPerVariable] == 0)
        request.station = words[DefaultStation];
    address(request);
    for (const Request& queued : once) {
        if (queued.isSameVariable(request) && queued.isSamePlace(request))
            return once.size();
    }
    once.append(request);
    return once.size();
}

int Driver::write(const Request& given)
{
    Request request = given;
    request.access = 1;
    request.remote = words[Remote];
    request.link = words[LocalLink];
    request.purpose = 2;
    if (words[StationsPerVariable] == 0)
        request.station = words[DefaultStation];
    address(request);
    if (words[WriteMode] != 2)
        return 1;
    for (int i = 1; i < writes.size(); ++i) {
        if (writes.at(i).isSamePlace(request)) {
            writes[i] = request;
            return writes.size();
        }
    }
    writes.append(request);
    return writes.size();
}

void Driver::enable(int station, bool enabled)
{
    if (enabled)
        disabled.remove(station);
    else
        disabled[station] = 0;
}

// Only lists with one variable of each tag, each short enough for one request, so that nothing is
// merged or cut.
int Driver::rebuild(const QList<Variable>& variables)
{
    cyclic.clear();
    if (variables.isEmpty())
        return 0;
    answeredInPass = 0;
    words[PassComplete] = 0;
    for (const Variable& variable : variables) {
        Request request;
        request.number = -1;
        request.remote = words[Remote];
        request.link = words[LocalLink];
        request.station = words[DefaultStation];
        request.area = variable.area;
        request.tag = variable.tag;
        request.element = variable.element;
        request.count = variable.count;
        address(request);
        cyclic.append(request);
    }
    std::sort(cyclic.begin(), cyclic.end(),
              [](const Request& a, const Request& b) { return a.tag < b.tag; });
    return cyclic.size();
}

// ---- Requests -----------------------------------------------------------------------------------

bool Driver::isConnected(int station)
{
    if (!stations.contains(station))
        stations[station].number = 1;
    return stations[station].connected;
}

bool Driver::isTypeKnown(const Request& request)
{
    return isConfirmed(stations[request.station].types.value(request.tag));
}

void Driver::dropDisabled(QList<Request>& requests) const
{
    while (!requests.isEmpty() && disabled.contains(requests.first().station))
        requests.removeFirst();
}

const Transaction* Driver::poll(quint32 serial)
{
    if (queue.isEmpty()) {
        if (!writes.isEmpty() && writesInARow < 5)
            serveWrite(serial);
        else if (!once.isEmpty() && onceInARow < 5)
            serveOnce(serial);
        else
            serveCyclic(serial);
    }
    return queue.isEmpty() ? nullptr : &queue.first();
}

void Driver::serveWrite(quint32 serial)
{
    list = 1;
    dropDisabled(writes);
    if (writes.isEmpty())
        return;
    Request& head = writes.first();
    ++writesInARow;
    if (!isConnected(head.station))
        return setUp(head.station, serial);
    if (isTypeKnown(head))
        return sendWrite(head);
    // The first element is read to learn the type.
    list = 0;
    Request first = head;
    first.access = 0;
    first.start = 0;
    sendRead(first);
}

void Driver::serveOnce(quint32 serial)
{
    list = 2;
    dropDisabled(once);
    if (once.isEmpty())
        return;
    ++onceInARow;
    read(once.first(), serial);
}

void Driver::serveCyclic(quint32 serial)
{
    if (cyclic.isEmpty()) {
        words[PassComplete] = 1;
    } else {
        list = 0;
        int turn = 0;
        while (turn < cyclic.size() && disabled.contains(cyclic.at(turn).station))
            ++turn;
        if (turn == cyclic.size())
            return;
        std::rotate(cyclic.begin(), cyclic.begin() + turn, cyclic.end());
        read(cyclic.first(), serial);
    }
    writesInARow = onceInARow = 0;
}

void Driver::read(const Request& request, quint32 serial)
{
    if (isConnected(request.station))
        sendRead(request);
    else
        setUp(request.station, serial);
}

void Driver::send(const QByteArray& frame, int expected, int valueAt, const Request& request)
{
    queue.append({frame, frame.size(), expected, valueAt, request});
}

void Driver::setUp(int station, quint32 serial)
{
    Request none;
    none.station = station;
    const quint16 number = stations[station].number;
    send(wire::framed(wire::identityRequest(number)), 61, 0, none);
    send(openRequest(static_cast<quint16>(number + 1), serial), 46, 0, none);
    words[Frames] = 2;
    words[Answered] = 0;
}

void Driver::sendRead(const Request& request)
{
    quint32 element = 0;
    int count = request.count;
    if (request.indexed) {
        QByteArray& type = typeOf(request.station, request.tag);
        if (!isConfirmed(type))
            type.replace(0, 1, byte(kUnknown));
        const quint8 typeClass = byteAt(type, 0);
        if (typeClass == 1 || typeClass == kUnknown) {
            count = 1;
        } else {
            const int words16 = wordsOf(typeClass);
            element = static_cast<quint32>(request.start);
            count = request.purpose ? request.count / words16 : request.count - (words16 - 1);
        }
    }
    const Station& station = stations[request.station];
    send(wire::readRequest(station.number, fitted(station.connection, 2),
                           wire::tagPath(request.tag.toLatin1(), element),
                           static_cast<quint32>(count)),
         kAnySize, 22, request);
    words[Frames] = 1;
    words[Answered] = 0;
}

void Driver::sendWrite(Request& request)
{
    const Station& station = stations[request.station];
    const QByteArray type = station.types.value(request.tag);
    const int typeClass = byteAt(type, 0);
    const int words16 = wordsOf(typeClass);
    int elements = (request.count + words16 - 1) / words16;
    if (typeClass == 1) {
        elements = 1;
        request.value.prepend(static_cast<char>(request.value.size()));
    } else {
        const QByteArray given = typeClass == 2 ? everySecond(request.value) : request.value;
        request.value = fitted(given, elements * elementSize(typeClass));
    }
    const bool named = request.indexed && typeClass != 1;
    send(wire::writeRequest(
             station.number, fitted(station.connection, 2),
             wire::tagPath(request.tag.toLatin1(), static_cast<quint32>(named ? request.start : 0)),
             static_cast<quint16>(byteAt(type, 1) | byteAt(type, 2) << 8),
             static_cast<quint32>(elements), request.value),
         kAnySize, 0, request);
    words[Frames] = 1;
    words[Answered] = 0;
    notices.push_back({request.kind, 1});
}

// ---- Replies ------------------------------------------------------------------------------------

int Driver::answer(QByteArray& reply, int length, quint32 serial)
{
    result.code = 1;
    if (queue.isEmpty())
        return result.code;
    if (!isConnected(queue.first().request.station)) {
        answerSetUp(reply, serial);
    } else if (queue.first().expected == kAnySize) {
        look(reply, length);
    } else {
        const int code = codeFor(reply, length);
        if (code == 1)
            succeed(code);
        else
            fail(code);
    }
    return result.code;
}

void Driver::advance(int station)
{
    quint16& number = stations[station].number;
    ++number;
    if (number == 0)
        number = 1;
}

// Only the end of the reply is looked at.
void Driver::answerSetUp(const QByteArray& reply, quint32 serial)
{
    const int id = queue.first().request.station;
    const bool opening = words[Answered] == 1;
    advance(id);
    Station& station = stations[id];
    if (reply.size() < 4 || !reply.left(reply.size() - 2).endsWith("\x10\x03")) {
        result.code = 201;
        if (opening && ++looks < 4) {
            queue.first().frame = openRequest(station.number, serial);
        } else {
            looks = opening ? 0 : looks;
            queue.clear();
        }
        return;
    }
    looks = 0;
    queue.removeFirst();
    ++words[Answered];
    if (opening) {
        const QByteArray plain = frame_model::undoubled(reply);
        station.connection += byte(byteAt(plain, 16)) + byte(byteAt(plain, 17));
        station.connected = true;
        queue.clear();
    } else {
        queue.first().frame = openRequest(station.number, serialOf(queue.first().frame));
    }
}

void Driver::look(const QByteArray& reply, int length)
{
    if (frame_model::verdict(reply) == 1) {
        looks = 0;
        queue.first().expected = length;
    } else if (++looks < 11) {
        result.code = 0;
    } else {
        looks = 0;
        queue.first().expected = kImpossibleSize;
    }
}

int Driver::codeFor(QByteArray& reply, int length)
{
    const Transaction& head = queue.first();
    const int kind = head.request.kind >= 1 && head.request.kind <= 11 ? head.request.kind : 0;
    if (length == 0)
        return 41 + kind;
    if (length != head.expected)
        return 71 + kind;
    if (head.request.access == 0) {
        keepValue(stations[head.request.station], head.request, head.valueAt, reply);
        reply = frame_model::undoubled(reply);
    }
    return 1;
}

void Driver::succeed(int code)
{
    const int station = queue.first().request.station;
    failed = false;
    queue.removeFirst();
    ++words[Answered];
    if (words[PassComplete] == 0 && ++answeredInPass > cyclic.size()) {
        answeredInPass = 0;
        words[PassComplete] = 1;
    }
    advance(station);
    complete();
    result.code = code;
}

void Driver::fail(int code)
{
    failed = true;
    answeredInPass = 0;
    words[PassComplete] = 0;
    result.code = 0;
    if (++words[Failures] <= words[RetryLimit])
        return;
    words[Failures] = 0;
    Station& station = stations[queue.first().request.station];
    station.connected = false;
    station.connection.clear();
    queue.clear();
    complete();
    notices.push_back({result.kind, 1});
    dropAfterFailure();
    result.code = code;
}

void Driver::complete()
{
    if (list == 1) {
        retire(writes);
    } else if (list == 2) {
        retire(once);
    } else if (list == 0 && !cyclic.isEmpty()) {
        result = cyclic.takeFirst();
        cyclic.append(result);
        result.value.clear();
    }
}

void Driver::retire(QList<Request>& requests)
{
    if (requests.isEmpty())
        return;
    result = requests.takeFirst();
    result.value.clear();
    bool continues = false;
    for (const Request& later : requests)
        continues = continues || later.isSameVariable(result);
    if (failed || !continues)
        notices.push_back({words[Channel], result.kind, result.number, failed ? 2 : 1});
}

void Driver::dropAfterFailure()
{
    const bool all = words[StationsPerVariable] == 0;
    QList<Request> keptOnce, keptWrites;
    for (const Request& request : once) {
        const bool here = all || request.station == result.station;
        if (!here || !request.isSameVariable(result))
            keptOnce.append(request);
    }
    for (const Request& request : writes) {
        if (!all && request.station != result.station)
            keptWrites.append(request);
    }
    once = keptOnce;
    writes = keptWrites;
}

// ---- Values -------------------------------------------------------------------------------------

int Driver::fetch(const QString& tag, const QString& element, int station, int count,
                  QByteArray& out)
{
    Request request;
    request.tag = tag;
    request.element = element;
    request.station = station;
    request.count = count;
    address(request);
    const Station& store = stations[station];
    if (!store.connected || !store.values.contains(tag)) {
        out = QByteArray(2 * count, '\0');
        return 0;
    }
    const int typeClass = byteAt(typeOf(station, tag), 0);
    const int words16 = wordsOf(typeClass);
    const int from = request.start * elementSize(typeClass);
    int size = (request.count + words16 - 1) / words16 * elementSize(typeClass);
    if (typeClass == 1 && size > 0)
        size = 2 * count;
    if (typeClass == kUnknown)
        size = 0;
    const QByteArray bytes = fitted(stations[station].values.value(tag).mid(from), size);
    out.clear();
    for (char value : bytes) {
        out += value;
        if (typeClass == 2)
            out += '\0';
    }
    return 1;
}

} // namespace model
