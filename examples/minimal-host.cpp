// minimal-host DEVICE [SETPOINT]: the smallest complete host. Reads two tags of a controller on a
// serial line. If SETPOINT is given, writes it and reads again. See docs/host-integration.md.
#include <Func_GetOrSetData.h>
#include <Func_Initi.h>
#include <tagcommunication.h>

#include <QtCore/QSet>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace {
const int kStation = 1;
const int kReplyTimeoutMs = 1000; // for both frames at 38400 baud and the controller's work
const int kNoConnection = 201;    // result of a connection set-up that was not answered
const int kStatus = 18;           // offset of the CIP status in an undoubled data reply
const QByteArray kAcknowledgement("\x10\x06", 2);
const QString kFirstElement = QString::fromLatin1("0");
int line = -1;
int writeStatus = 0; // 1 done, 2 failed
QSet<QString> fresh; // tags that were read

[[noreturn]] void fail(const char* what, const char* why, int status = 1)
{
    std::fprintf(stderr, "minimal-host: %s: %s\n", what, why);
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

// The reply to `frame` as the driver needs it, with DLE ACK in front; empty after a time-out.
QByteArray exchange(const QByteArray& frame)
{
    ::tcflush(line, TCIFLUSH);
    send(frame);
    QByteArray input;
    for (pollfd wait = {line, POLLIN, 0}; ::poll(&wait, 1, kReplyTimeoutMs) > 0;) {
        char byte = 0;
        if (::read(line, &byte, 1) != 1)
            fail("line", "the device is gone");
        input.append(byte);
        const QByteArray reply = kAcknowledgement + input.mid(input.indexOf("\x10\x02"));
        if (DataIntegrityJudgment(&reply) != 1)
            continue; // incomplete or corrupt
        send(kAcknowledgement);
        if (getRecoverData(reply, true).mid(8, 2) == getRecoverData(frame, true).mid(8, 2))
            return reply; // the transaction numbers match
        input.clear();    // a late reply to an earlier request
    }
    return QByteArray();
}

// Sends one frame to the controller and passes its reply to the driver.
void pollOnce()
{
    static int setUps = 0;
    Protocol* sent = ComCommunication();
    if (!sent)
        return;
    const QString tag = sent->var.tagName; // empty while the connection is set up
    const bool isRead = sent->var.accessMode == 0 && !tag.isEmpty();
    QByteArray reply = exchange(sent->frame);
    const QByteArray plain = getRecoverData(reply, true);
    if (!tag.isEmpty() && plain.size() > kStatus && plain.at(kStatus) != 0)
        fail(qPrintable(tag), "the controller refuses it");
    while (sent->replyLength == -1) // until the length is known, or silence counts as failed
        DataCom(&reply, reply.size());
    // After a time-out the driver expects a length that no reply has, also of the resends.
    const int result = DataCom(&reply, reply.isEmpty() ? 0 : sent->replyLength)->retValue;
    if (result == kNoConnection && ++setUps == 8)
        fail("station 1", "no answer (check cable and speed)");
    if (result > 1 && result != kNoConnection)
        fail(qPrintable(tag), "no reply within the retry limit");
    if (isRead && result == 1)
        fresh.insert(tag);
}

// The stored value. Both controller and host have the low byte first.
template<typename Value> Value valueOf(const char* tag)
{
    QByteArray bytes; // a count is in words of 16 bits
    GetRegisterData(QString::fromLatin1(tag), 0, kFirstElement, kStation, bytes, sizeof(Value) / 2);
    Value value = 0;
    std::memcpy(&value, bytes.constData(), qMin(sizeof value, std::size_t(bytes.size())));
    return value;
}

HOSTVAR variable(const char* tag, int words)
{
    // In their order: hostField0, areaType, hostField1, addressText, tagName, count.
    return {0, 0, 0, kFirstElement, QString::fromLatin1(tag), words};
}

void readAll()
{
    for (fresh.clear(); fresh.size() < 2;)
        pollOnce();
    std::printf("Speed = %d, Setpoint = %g\n", valueOf<qint16>("Speed"),
                double(valueOf<float>("Setpoint")));
}
} // namespace

int main(int argc, char** argv)
{
    if (argc < 2 || argc > 3)
        fail("usage", "minimal-host DEVICE [SETPOINT]", 2);
    openLine(argv[1]);
    ComInfo settings = ComInfo();
    settings.defaultStation = kStation;
    settings.retryLimit = 2;
    settings.writeMode = 2;
    SetComInfo(&settings);
    RegistCallBackFuncIntf([](int, int, int, int status) { writeStatus = status; }, nullptr);
    QList<HOSTVAR> variables = QList<HOSTVAR>() << variable("Speed", 1) << variable("Setpoint", 2);
    ReCreatReadVarList(&variables);
    readAll();
    if (argc == 3) {
        const float value = std::strtof(argv[2], nullptr);
        const QByteArray bytes(reinterpret_cast<const char*>(&value), sizeof value);
        SetRegisterData(QString::fromLatin1("Setpoint"), 0, kFirstElement, kStation, bytes, 2, 0,
                        0);
        while (writeStatus == 0)
            pollOnce();
        if (writeStatus != 1)
            fail("Setpoint", "the write failed");
        readAll();
    }
}
