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

const int kStation = 1, kRetryLimit = 2;
const int kReplyMs = 400;   // for both frames at 38400 baud and the controller's work
const int kGapMs = 100;     // a reply that pauses for so long has lost its end
const int kLinkRetries = 3; // how often a reply is asked for again, and a request repeated
const int kSetUps = 4;      // failed attempts to connect, after which a pass is given up
const int kLongest = 600;   // more than a message on a connection of 504 bytes
const QByteArray kAck("\x10\x06", 2), kNak("\x10\x15", 2), kStart("\x10\x02", 2),
    kEnd("\x10\x03", 2);
const quint8 kDle = 0x10;
const int kVaries = -1;                                     // Protocol::replyLength
const int kNotFinished = 0, kDone = 1, kNoConnection = 201; // RW_VAR::retValue
// Offsets in a message, and then in its CIP part.
const int kCommand = 2, kLinkStatus = 3, kTransaction = 4;
const int kService = 0, kStatus = 2, kExtendedSize = 3, kExtended = 4, kType = 4, kValues = 6;
const quint8 kInt = 0xC3, kDint = 0xC4, kShortString = 0xDA; // CIP type codes

struct Tag
{
    const char* name;
    quint8 type;
    int elements;
    QByteArray outcome; // of this pass: the value, or why there is none; empty until known
    bool isValue;
};
Tag tags[] = {{"Speed", kInt, 1, "", false},
              {"Recipe", kDint, 20, "", false},
              {"ProductName", kShortString, 1, "", false}};
Tag& speed = tags[0];

int line = -1, setUpsLeft = 0;
QByteArray writeOutcome("none"); // empty while the write is queued
bool allDone = true;

[[noreturn]] void fail(const char* what, const char* why, int status)
{
    std::fprintf(stderr, "careful-host: %s: %s\n", what, why);
    std::exit(status);
}

// ---- The line -----------------------------------------------------------------------------------

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
    for (int sent = 0; sent < bytes.size();) {
        const ssize_t count =
            ::write(line, bytes.constData() + sent, std::size_t(bytes.size() - sent));
        if (count < 0)
            fail("line", "the device takes no bytes", 1);
        sent += int(count);
    }
}

// Waits for one byte; false after that time.
bool receive(quint8& byte, qint64 milliseconds)
{
    pollfd wait = {line, POLLIN, 0};
    if (::poll(&wait, 1, int(qMax(qint64(0), milliseconds))) <= 0)
        return false;
    if (::read(line, &byte, 1) != 1)
        fail("line", "the device is gone", 1);
    return true;
}

quint8 byteAt(const QByteArray& bytes, int index)
{
    return index < bytes.size() ? quint8(bytes.at(index)) : quint8(0);
}

// The frame of a message, as the driver needs it: from a DLE ACK to the CRC.
QByteArray framed(const QByteArray& message)
{
    QByteArray frame = kAck + kStart + message + kEnd;
    const unsigned crc = checkDataCrc(frame);
    frame.append(char(crc & 0xFF)).append(char(crc >> 8));
    return getRecoverData(frame, false); // doubles the DLEs
}

// Finds messages and controls in what arrives, byte by byte. A message ends with DLE ETX and its
// CRC. Neither a pause nor a number of bytes ends it.
class Collector
{
public:
    enum Event { kNothing, kMessage, kCorrupt, kAcknowledged, kRefused, kEnquiry };

    Event add(quint8 byte)
    {
        if (m_crcBytes > 0) {
            m_crc = m_crc >> 8 | unsigned(byte) << 8;
            if (--m_crcBytes > 0)
                return kNothing;
            inMessage = false;
            const bool isIntact = m_crc == checkDataCrc(kAck + kStart + message + kEnd);
            return m_isLegal && isIntact ? kMessage : kCorrupt;
        }
        if (m_escaped)
            return addEscaped(byte);
        m_escaped = byte == kDle;
        if (inMessage && !m_escaped)
            message.append(char(byte));
        inMessage = inMessage && message.size() <= kLongest; // else noise that began like one
        return kNothing;
    }

    QByteArray message; // without ends, doubled DLEs and CRC
    bool inMessage = false;

private:
    Event addEscaped(quint8 byte)
    {
        m_escaped = byte == kDle && !inMessage; // noise in front of a DLE
        switch (byte) {
        case 0x02: // STX; within a message the controller starts it again
            message.clear();
            inMessage = m_isLegal = true;
            return kNothing;
        case 0x03: // ETX
            m_crcBytes = inMessage ? 2 : 0;
            return kNothing;
        case 0x05: // these three may stand within a message and are no part of it
            return kEnquiry;
        case 0x06:
            return kAcknowledged;
        case 0x15:
            return kRefused;
        default:
            m_isLegal = byte == kDle && m_isLegal;
            if (inMessage)
                message.append(char(byte));
            return kNothing;
        }
    }

    bool m_escaped = false, m_isLegal = true;
    int m_crcBytes = 0;
    unsigned m_crc = 0;
};

// Where the CIP message begins: behind the identifier, if the message has one.
int cipStart(const QByteArray& message)
{
    return (byteAt(message, kCommand) & 0x3F) == 0x0A ? 12 : 8;
}

// Bytes 00 before a message change no CRC, but they shift it, so that it is no reply any more.
bool isReply(const QByteArray& message)
{
    const bool isLongEnough = message.size() >= cipStart(message) + kType;
    return (byteAt(message, kCommand) & 0x40) != 0 && isLongEnough;
}

// A late or repeated reply answers an earlier request.
bool answers(const QByteArray& reply, const QByteArray& request)
{
    const int cip = cipStart(request);
    return byteAt(reply, kCommand) == (byteAt(request, kCommand) | 0x40) &&
           byteAt(reply, kLinkStatus) == 0 &&
           reply.mid(kTransaction, 2) == request.mid(kTransaction, 2) &&
           byteAt(reply, cip + kService) == (byteAt(request, cip + kService) | 0x80);
}

// Sends a frame of the driver and waits for the reply to it; empty after a time-out. The driver
// would send the frame again, but the controller only acknowledges a repeated request. DLE NAK is
// what brings back a reply that was lost or damaged.
QByteArray exchange(const QByteArray& frame)
{
    const QByteArray request = getRecoverData(frame, true).mid(4);
    Collector collector;
    int asksLeft = kLinkRetries, repeatsLeft = kLinkRetries;
    qint64 heard = 0, late = kReplyMs / 2;
    QElapsedTimer time;
    time.start();
    ::tcflush(line, TCIFLUSH); // late replies to earlier requests
    send(frame);
    while (time.elapsed() < kReplyMs) {
        const qint64 until = collector.inMessage ? heard + kGapMs : late;
        quint8 byte = 0;
        Collector::Event event = Collector::kNothing;
        if (receive(byte, until - time.elapsed())) {
            event = collector.add(byte);
            heard = time.elapsed();
        } else if (time.elapsed() >= until) { // the reply is lost, or its end is
            if (!collector.inMessage)
                late = kReplyMs;
            collector = Collector();
            event = Collector::kCorrupt;
        }
        if (event == Collector::kMessage && !isReply(collector.message))
            event = Collector::kCorrupt;
        if (event == Collector::kMessage) {
            send(kAck); // in any case: the controller waits for it and sends no other reply
            if (answers(collector.message, request))
                return collector.message;
        } else if (event == Collector::kRefused && repeatsLeft-- > 0) {
            send(frame);
        } else if ((event == Collector::kCorrupt || event == Collector::kEnquiry) && asksLeft-- > 0)
        {
            send(kNak);
        }
    }
    return QByteArray();
}

// ---- The driver ---------------------------------------------------------------------------------

// Passes on a reply that was judged. Returns the driver's code.
int handOver(Protocol* sent, const QByteArray& message)
{
    QByteArray reply = framed(message);
    if (!sent->var.tagName.isEmpty() && reply.endsWith("\x10\x10"))
        reply.append('\0'); // the driver would take the two CRC bytes for one doubled DLE
    if (sent->replyLength == kVaries)
        DataCom(&reply, reply.size());
    // After a time-out the driver expects a length that no reply has, also of its resends.
    return DataCom(&reply, sent->replyLength)->retValue;
}

// Reports one time-out. Returns the driver's code, kNotFinished if it sends the request again.
int reportSilence(Protocol* sent)
{
    QByteArray nothing;
    while (sent->replyLength == kVaries)
        DataCom(&nothing, 0);
    return DataCom(&nothing, 0)->retValue;
}

// Asks for all elements in each cycle. The driver takes 1 off the count of a 32-bit type.
void readCyclically(const Tag& tag)
{
    RW_VAR request = RW_VAR();
    request.tagName = QString::fromLatin1(tag.name);
    request.stationNo = kStation;
    request.reqFlag = 1; // the name is in the catalogue, so that the count is used
    request.count = tag.elements + (tag.type == kDint ? 1 : 0);
    AddListReadVar(&request);
}

// "Done" means only that a reply came. A refusal has been judged before.
void onFinished(int, int, int, int status)
{
    if (writeOutcome.isEmpty())
        writeOutcome = status == 1 ? "written" : "no answer, written or not";
}

// ---- Values and reports -------------------------------------------------------------------------

void report(Tag& tag, const QByteArray& outcome, bool isValue = false)
{
    tag.outcome = outcome;
    tag.isValue = isValue;
    allDone = allDone && isValue;
    std::printf("%s%s%s\n", tag.name, isValue ? " = " : ": ", outcome.constData());
}

QByteArray hex(quint8 byte)
{
    return QByteArray(1, char(byte)).toHex().toUpper();
}

QByteArray refusal(const QByteArray& message)
{
    const int cip = cipStart(message);
    const QByteArray status = "refused, status " + hex(byteAt(message, cip + kStatus));
    if (byteAt(message, cip + kExtendedSize) == 0)
        return status;
    const int extended = cip + kExtended;
    return status + '/' + hex(byteAt(message, extended + 1)) + hex(byteAt(message, extended));
}

// The value from the driver, which has the low byte first, as this machine has. `size` is that of
// the value in the reply: after a shorter string the driver keeps the tail of a longer one.
QByteArray storedText(const Tag& tag, int size)
{
    QByteArray bytes, text; // a count is in words of 16 bits
    GetRegisterData(QString::fromLatin1(tag.name), 0, QString::fromLatin1("0"), kStation, bytes,
                    (size + 1) / 2);
    if (tag.type == kShortString) // control characters and the like become %1B
        return '"' + bytes.left(size).toPercentEncoding(" !#$&'()*+,/:;<=>?@[]^`{|}") + '"';
    for (int i = 0, word = 0; i < size; i += tag.type == kInt ? 2 : 4) {
        std::memcpy(&word, bytes.constData() + i, tag.type == kInt ? 2 : 4);
        text += (i > 0 ? " " : "") + QByteArray::number(tag.type == kInt ? qint16(word) : word);
    }
    return text;
}

void reportValue(Tag& tag, const QByteArray& message)
{
    const quint8 type = byteAt(message, cipStart(message) + kType);
    const QByteArray values = message.mid(cipStart(message) + kValues);
    const bool isString = tag.type == kShortString;
    const int size = isString ? byteAt(values, 0) : tag.elements * (tag.type == kInt ? 2 : 4);
    if (type != tag.type)
        report(tag, "has type " + hex(type));
    else if (values.size() == size + (isString ? 1 : 0))
        report(tag, storedText(tag, size), true);
    // Otherwise the driver did not know the type yet and has asked for the first element only.
}

// ---- The poll cycle -----------------------------------------------------------------------------

void giveUpPass()
{
    for (Tag& tag : tags) {
        if (tag.outcome.isEmpty())
            report(tag, "no connection");
    }
    // A queued write would go out when the controller is back, perhaps hours later.
    QMutexLocker lock(&PLC_driver.listMutex);
    PLC_driver.writeList.clear();
    if (writeOutcome.isEmpty())
        writeOutcome = "not written: no connection";
}

void connectStation(Protocol* sent, const QByteArray& message)
{
    const bool isRefused = !message.isEmpty() && byteAt(message, cipStart(message) + kStatus) != 0;
    if (isRefused) {
        std::printf("connection: %s\n", refusal(message).constData());
        // Two hosts that connect within one second draw the same serial number, and the controller
        // refuses the second one. The driver draws again when it hears of the failure.
        ::poll(nullptr, 0, 1100);
    }
    const int code = message.isEmpty() || isRefused ? reportSilence(sent) : handOver(sent, message);
    if (code == kNoConnection && --setUpsLeft == 0)
        giveUpPass();
}

void finishRead(const QString& name, const QByteArray& failure, const QByteArray& message)
{
    for (Tag& tag : tags) {
        if (name != QString::fromLatin1(tag.name) || !tag.outcome.isEmpty())
            continue;
        if (failure.isEmpty())
            reportValue(tag, message);
        else
            report(tag, failure);
    }
}

void transact()
{
    Protocol* sent = ComCommunication();
    if (!sent) {
        ::poll(nullptr, 0, 20);
        return;
    }
    const QByteArray message = exchange(sent->frame);
    const QString tag = sent->var.tagName; // `sent` is gone once the driver has its reply
    if (tag.isEmpty())
        return connectStation(sent, message);
    const bool isRead = sent->var.accessMode == 0;
    const quint8 status = byteAt(message, cipStart(message) + kStatus);
    const bool isSilent = message.isEmpty(), isForgotten = status == 0x01 || status == 0x07;
    const QByteArray failure = isSilent ? "no answer" : status != 0 ? refusal(message) : "";
    if (!isRead && status != 0)
        writeOutcome = failure; // the driver will call it done
    if (isRead && status != 0)
        sent->var.accessMode = 1; // acknowledge only, or the error becomes type and value
    int code = isSilent || isForgotten ? reportSilence(sent) : handOver(sent, message);
    while (isForgotten && code == kNotFinished) // until the driver connects again
        code = reportSilence(sent);
    if (code > kDone && writeOutcome.isEmpty())
        writeOutcome = "not written: connection lost"; // all queued writes go with it
    if (code != kNotFinished && isRead)
        finishRead(tag, failure, message);
}

void readAll()
{
    setUpsLeft = kSetUps;
    for (Tag& tag : tags)
        tag.outcome.clear();
    for (Tag& tag : tags) { // each reply is that of any tag
        while (tag.outcome.isEmpty())
            transact();
    }
}

void write(qint16 value)
{
    const QByteArray bytes(reinterpret_cast<const char*>(&value), sizeof value);
    writeOutcome = speed.isValue ? "" : "not written: its type is not known";
    setUpsLeft = kSetUps;
    if (speed.isValue)
        SetRegisterData(QString::fromLatin1(speed.name), 0, QString::fromLatin1("0"), kStation,
                        bytes, 1, 0, 0);
    while (writeOutcome.isEmpty())
        transact();
    std::printf("%s: %s\n", speed.name, writeOutcome.constData());
    allDone = allDone && writeOutcome == "written";
}
} // namespace

int main(int argc, char** argv)
{
    const long passes = argc > 2 ? std::strtol(argv[2], nullptr, 10) : 0;
    char* end = nullptr;
    const long value = argc > 3 ? std::strtol(argv[3], &end, 10) : 0;
    const bool isNumber = argc == 3 || (argc == 4 && end != argv[3] && *end == '\0');
    if (passes < 1 || !isNumber || value != qint16(value))
        fail("usage", "careful-host DEVICE PASSES [SPEED]", 2);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    openLine(argv[1]);
    ComInfo settings = ComInfo();
    settings.defaultStation = kStation;
    settings.retryLimit = kRetryLimit;
    settings.writeMode = 2;
    SetComInfo(&settings);
    RegistCallBackFuncIntf(onFinished, nullptr);
    QList<varName> names;
    for (const Tag& tag : tags) {
        const varName name = {QString::fromLatin1(tag.name), 2, 0, QList<QString>()};
        names.append(name);
    }
    PassVarName(&names);
    for (const Tag& tag : tags)
        readCyclically(tag);
    for (long pass = 1; pass <= passes; ++pass) {
        readAll();
        if (argc == 4 && pass == 1)
            write(qint16(value));
    }
    return allDone ? 0 : 1;
}
