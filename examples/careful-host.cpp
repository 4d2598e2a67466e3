// careful-host DEVICE PASSES [SPEED]: a host that prints only what is true. Reads its tags PASSES
// times over a serial line and writes SPEED, if given, after the first pass. Prints a line for each
// tag in each pass: its value, or why there is none. See docs/host-integration.md.
// Exit status: 0 all was read and written, 1 something was refused or not answered, 2 usage.
#include <Func_GetOrSetData.h>
#include <Func_Initi.h>
#include <tagcommunication.h>

#include <QtCore/QElapsedTimer>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace {
const int kStation = 1;
const int kReplyMs = 400;   // for both frames at 38400 baud and the controller's work
const int kGapMs = 100;     // a reply that pauses for so long has lost its end
const int kLinkRetries = 3; // how often a reply is asked for again, and a request repeated
const int kLongest = 600;   // more than a message on a connection of 504 bytes
const int kSetUps = 4;      // failed attempts to connect, after which a pass is given up
const quint8 kStx = 0x02, kEtx = 0x03, kEnq = 0x05, kAck = 0x06, kDle = 0x10, kNak = 0x15;
const QByteArray kDleAck("\x10\x06", 2), kDleNak("\x10\x15", 2), kEnd("\x10\x03", 2);
const QByteArray kStart("\x10\x06\x10\x02", 4);              // the driver counts from the DLE ACK
const int kNotFinished = 0, kDone = 1, kNoConnection = 201;  // RW_VAR::retValue
const quint8 kInt = 0xC3, kDint = 0xC4, kShortString = 0xDA; // CIP type codes
const QString kFirst = QString::fromLatin1("0");             // the element of a value
enum Mode { kRead, kWrite };                                 // RW_VAR::accessMode

struct Task
{
    QString tag;
    quint8 type;
    int elements;
    Mode mode;
    bool isOpen, isGood; // in this pass: has no outcome yet, has a good one
};
Task tasks[] = {{QString::fromLatin1("Speed"), kInt, 1, kRead, false, false},
                {QString::fromLatin1("Recipe"), kDint, 20, kRead, false, false},
                {QString::fromLatin1("ProductName"), kShortString, 1, kRead, false, false},
                {QString::fromLatin1("Speed"), kInt, 1, kWrite, false, false}};
Task &speed = tasks[0], &speedWrite = tasks[3];
int line = -1, setUpsLeft = 0;
bool allGood = true;

[[noreturn]] void fail(const char* what, const char* why, int status = 1)
{
    std::fprintf(stderr, "careful-host: %s: %s\n", what, why);
    std::exit(status);
}

void openLine(const char* device)
{
    line = ::open(device, O_RDWR | O_NOCTTY);
    termios settings;
    if (line < 0 || ::tcgetattr(line, &settings) != 0)
        fail(device, "cannot be opened as a serial device", 2);
    ::cfmakeraw(&settings);
    ::cfsetspeed(&settings, B38400);
    settings.c_cflag |= CLOCAL | CREAD;
    ::tcsetattr(line, TCSANOW, &settings);
}

void send(const QByteArray& bytes)
{
    if (::write(line, bytes.constData(), std::size_t(bytes.size())) != bytes.size())
        fail("line", "the device takes no bytes");
}

// Waits for one byte; -1 after that time.
int receive(qint64 milliseconds)
{
    quint8 byte = 0;
    pollfd wait = {line, POLLIN, 0};
    if (::poll(&wait, 1, int(milliseconds)) <= 0)
        return -1;
    if (::read(line, &byte, 1) != 1)
        fail("line", "the device is gone");
    return byte;
}

// The data of a frame: from behind DLE STX to DLE ETX, with each doubled DLE made one.
struct Message
{
    QByteArray bytes; // none if no reply came

    quint8 at(int index) const { return index < bytes.size() ? quint8(bytes.at(index)) : 0; }
    QByteArray hex(int index) const { return bytes.mid(index, 1).toHex().toUpper(); }
    // Where the CIP part begins: on a connection, behind its identifier.
    int cip() const { return (at(2) & 0x3F) == 0x0A ? 12 : 8; }
    quint8 status() const { return at(cip() + 2); }
    // Bytes 00 in front of a message change no CRC, but they shift it: it is no reply any more.
    bool isReply() const { return (at(2) & 0x40) != 0 && bytes.size() >= cip() + 4; }
    // A late or repeated reply answers an earlier request.
    bool answers(const Message& request) const
    {
        return at(2) == (request.at(2) | 0x40) && at(3) == 0 && // command, link status
               bytes.mid(4, 2) == request.bytes.mid(4, 2) &&    // transaction number
               at(cip()) == (request.at(request.cip()) | 0x80); // service
    }
    // Why it brings no result; empty if it brings one.
    QByteArray failure() const
    {
        const QByteArray code = ": refused, status " + hex(cip() + 2);
        if (status() != 0) // there may be an extended one
            return at(cip() + 3) == 0 ? code : code + '/' + hex(cip() + 5) + hex(cip() + 4);
        return bytes.isEmpty() ? ": no answer" : "";
    }
};

// Finds messages and controls in what arrives, byte by byte. A message ends with DLE ETX and its
// CRC. Neither a pause nor a number of bytes ends it.
struct Collector
{
    Message message;
    bool inMessage = false, isBehindDle = false, isLegal = true;
    int crcBytes = 0;
    unsigned crc = 0;
    enum Event { kNothing, kReply, kAskAgain, kRepeat };

    Event add(quint8 byte)
    {
        if (crcBytes > 0)
            return addCrc(byte);
        if (isBehindDle)
            return addControl(byte);
        isBehindDle = byte == kDle;
        if (inMessage && !isBehindDle)
            message.bytes.append(char(byte));
        inMessage = inMessage && message.bytes.size() <= kLongest; // else noise began like one
        return kNothing;
    }
    Event addControl(quint8 byte)
    {
        isBehindDle = byte == kDle && !inMessage; // noise may end with a DLE
        if (byte == kStx) {                       // within a message the controller starts it again
            *this = Collector();
            inMessage = true;
        } else if (byte == kEtx) {
            crcBytes = inMessage ? 2 : 0;
        } else if (byte == kEnq || byte == kNak) { // may stand within a message, as DLE ACK may
            return byte == kEnq ? kAskAgain : kRepeat;
        } else if (inMessage && byte != kAck) {
            isLegal = isLegal && byte == kDle;
            message.bytes.append(char(byte));
        }
        return kNothing;
    }
    Event addCrc(quint8 byte)
    {
        crc = crc >> 8 | unsigned(byte) << 8;
        inMessage = --crcBytes > 0;
        const bool isIntact = isLegal && crc == checkDataCrc(kStart + message.bytes + kEnd);
        return inMessage ? kNothing : isIntact && message.isReply() ? kReply : kAskAgain;
    }
    qint64 patience() const { return inMessage ? kGapMs : kReplyMs / 2; }
    Event addPause() // the reply is lost, or its end is
    {
        *this = Collector();
        return kAskAgain;
    }
};

// Sends a frame of the driver and waits for the reply to it. The driver would send the frame again,
// but the controller only acknowledges a repeated request. DLE NAK is what brings back a reply that
// was lost or damaged.
Message exchange(const QByteArray& frame)
{
    const Message request = {getRecoverData(frame, true).mid(kStart.size())};
    Collector collector;
    int asksLeft = kLinkRetries, repeatsLeft = kLinkRetries;
    QElapsedTimer time;
    time.start();
    ::tcflush(line, TCIFLUSH); // late replies to earlier requests
    send(frame);
    for (qint64 left = kReplyMs; left > 0; left = kReplyMs - time.elapsed()) {
        const int byte = receive(qMin(left, collector.patience()));
        const int event = byte < 0 ? collector.addPause() : collector.add(quint8(byte));
        if (event == Collector::kReply)
            send(kDleAck); // in any case: the controller waits for it and sends no other reply
        if (event == Collector::kReply && collector.message.answers(request))
            return collector.message;
        if (event == Collector::kRepeat && repeatsLeft-- > 0)
            send(frame);
        if (event == Collector::kAskAgain && asksLeft-- > 0)
            send(kDleNak);
    }
    return Message();
}

// The frame of a message as the driver needs it.
QByteArray framed(const QByteArray& message)
{
    QByteArray frame = kStart + message + kEnd;
    const unsigned crc = checkDataCrc(frame);
    frame.append(char(crc & 0xFF)).append(char(crc >> 8));
    return getRecoverData(frame, false); // doubles the DLEs
}

// Passes on a reply that was judged, or reports a time-out if there is none. Returns the driver's
// code, kNotFinished if it sends the request again.
int handOver(Protocol* sent, const Message& message)
{
    QByteArray reply = message.bytes.isEmpty() ? QByteArray() : framed(message.bytes);
    if (!sent->var.tagName.isEmpty() && reply.endsWith("\x10\x10"))
        reply.append('\0');       // the driver would take the two CRC bytes for one doubled DLE
    while (sent->replyLength < 0) // it varies: one call for a reply, eleven for a time-out
        DataCom(&reply, reply.size());
    // After a time-out the driver expects a length that no reply has, also of its resends.
    return DataCom(&reply, reply.isEmpty() ? 0 : sent->replyLength)->retValue;
}

Task* openTask(const RW_VAR& request)
{
    for (Task& task : tasks) {
        if (task.isOpen && task.tag == request.tagName && task.mode == request.accessMode)
            return &task;
    }
    return nullptr;
}

void finish(Task& task, const QByteArray& outcome, bool isGood = false)
{
    task.isOpen = false;
    task.isGood = isGood;
    allGood = allGood && isGood;
    std::printf("%s%s\n", qPrintable(task.tag), outcome.constData());
}

void finishRead(Task& task, const Message& reply)
{
    const bool isString = task.type == kShortString, isInt = task.type == kInt;
    const int start = reply.cip() + 6, width = isInt ? 2 : 4;
    const int size = isString ? reply.at(start) : task.elements * width;
    if (reply.at(start - 2) != task.type)
        return finish(task, ": has type " + reply.hex(start - 2));
    if (reply.bytes.size() != start + (isString ? 1 : 0) + size)
        return; // the driver did not know the type yet and has asked for the first element only
    QByteArray bytes, text; // low bytes first, as on this machine
    GetRegisterData(task.tag, 0, kFirst, kStation, bytes, (size + 1) / 2);
    if (isString) // the driver keeps the tail of a longer one; %1B stands for a control character
        text = '"' + bytes.left(size).toPercentEncoding(" !#$&'()*+,/:;<=>?@[]^`{|}") + '"';
    for (int i = 0, word = 0; i < size && !isString; i += width) {
        std::memcpy(&word, bytes.constData() + i, std::size_t(width));
        text += (i > 0 ? " " : "") + QByteArray::number(isInt ? qint16(word) : word);
    }
    finish(task, " = " + text, true);
}

void finish(Task& task, const Message& reply)
{
    const QByteArray failure = reply.failure();
    if (task.mode == kRead && failure.isEmpty())
        finishRead(task, reply);
    else if (task.mode == kRead || reply.status() != 0)
        finish(task, failure); // also a write that the driver calls done
    else
        finish(task, failure.isEmpty() ? ": written" : failure + ", written or not",
               failure.isEmpty());
}

void handleSetUpReply(Protocol* sent, const Message& reply)
{
    if (reply.status() != 0) {
        std::printf("connection%s\n", reply.failure().constData());
        // Two hosts that connect within one second draw the same serial number, and the controller
        // refuses the second one. The driver draws again when it hears of the failure.
        ::poll(nullptr, 0, 1100);
    }
    const int code = handOver(sent, reply.status() == 0 ? reply : Message());
    if (code != kNoConnection || --setUpsLeft > 0)
        return;
    for (Task& task : tasks) {
        if (task.isOpen)
            finish(task, task.mode == kWrite ? ": not written: no connection" : ": no connection");
    }
    // A queued write would go out when the controller is back, perhaps hours later.
    QMutexLocker lock(&PLC_driver.listMutex);
    PLC_driver.writeList.clear();
}

void handleDataReply(Protocol* sent, const Message& reply)
{
    const bool isForgotten = reply.status() == 0x01 || reply.status() == 0x07; // the connection
    Task* task = openTask(sent->var); // `sent` is gone once the driver has its reply
    if (reply.status() != 0 && sent->var.accessMode == kRead)
        sent->var.accessMode = kWrite; // acknowledge only, or the error becomes type and value
    int code = handOver(sent, isForgotten ? Message() : reply);
    while (isForgotten && code == kNotFinished) // until the driver connects again
        code = handOver(sent, Message());
    if (task && code != kNotFinished)
        finish(*task, reply);
    if (code > kDone && speedWrite.isOpen)
        finish(speedWrite, ": not written: connection lost"); // all queued writes go with it
}

// Polls until every task of this mode has an outcome.
void run(Mode mode)
{
    setUpsLeft = kSetUps;
    for (Task& task : tasks)
        task.isOpen = task.mode == mode;
    for (const Task& task : tasks) {
        while (task.isOpen) { // each reply can be that of any task
            Protocol* sent = ComCommunication();
            if (!sent)
                ::poll(nullptr, 0, 20);
            else if (sent->var.tagName.isEmpty())
                handleSetUpReply(sent, exchange(sent->frame));
            else
                handleDataReply(sent, exchange(sent->frame));
        }
    }
}

void write(qint16 value)
{
    const QByteArray bytes(reinterpret_cast<const char*>(&value), sizeof value);
    if (!speed.isGood)
        return finish(speedWrite, ": not written: its type is not known");
    SetRegisterData(speed.tag, 0, kFirst, kStation, bytes, 1, 0, 0);
    run(kWrite);
}

void readCyclically(const Task& task)
{
    QList<varName> names;
    names.append({task.tag, 2, 0, QList<QString>()});
    PassVarName(&names); // so that the count is used
    RW_VAR request = RW_VAR();
    request.tagName = task.tag;
    request.stationNo = kStation;
    request.reqFlag = 1;
    request.count = task.elements + (task.type == kDint ? 1 : 0); // the driver takes off 1
    AddListReadVar(&request);
}
} // namespace

int main(int argc, char** argv)
{
    const int passes = argc > 2 ? QByteArray(argv[2]).toInt() : 0;
    const qint16 value = argc > 3 ? QByteArray(argv[3]).toShort() : qint16(0);
    if (passes < 1 || argc > 4 || (argc == 4 && QByteArray::number(value) != argv[3]))
        fail("usage", "careful-host DEVICE PASSES [SPEED]", 2);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    openLine(argv[1]);
    ComInfo settings = ComInfo();
    settings.defaultStation = kStation;
    settings.retryLimit = 2;
    settings.writeMode = 2;
    SetComInfo(&settings);
    for (const Task& task : tasks) {
        if (task.mode == kRead)
            readCyclically(task);
    }
    for (int pass = 1; pass <= passes; ++pass) {
        run(kRead);
        if (argc == 4 && pass == 1)
            write(value);
    }
    return allGood ? 0 : 1;
}
