#include "replies.h"

#include "Device_Driver.h"
#include "Func_Check.h"
#include "Func_Initi.h"
#include "Func_Read.h"
#include "frame_model.h"
#include "model.h"
#include "tagcommunication.h"
#include "wire.h"

#include <algorithm>

namespace replies {

namespace {

// 00, the bytes that mean something on the line, and two types: INT and SHORT_STRING.
const char kAlphabet[] = {'\x00', '\x02', '\x03', '\x06', '\x10', '\xC3', '\xDA'};
const int kLetters = 7;
const int kStation = 1;
const char kTag[] = "T";

// ---- CRC ----------------------------------------------------------------------------------------

// The definition: what is left of register and byte as a polynomial divided by
// x^16 + x^15 + x^2 + 1. The lowest bit is the highest coefficient.
unsigned int definedStep(unsigned int crc, unsigned int byte)
{
    unsigned int rest = crc ^ byte;
    for (int i = 0; i < 8; ++i) {
        const bool divides = rest % 2 == 1;
        rest /= 2;
        if (divides) // the coefficients 15, 2 and 0
            rest ^= 1u << 0 | 1u << 13 | 1u << 15;
    }
    return rest;
}

// The CRC that the driver gives a frame's data, which is closed with ETX, and the plain one.
bool crcsAre(unsigned int expected, const QByteArray& data)
{
    static QByteArray frame = wire::hex("10 06 10 02 00 00 00 10 03");
    std::copy(data.begin(), data.end(), frame.begin() + 4);
    QByteArray bytes = data;
    return checkDataCrc(frame) == definedStep(expected, 0x03) &&
           CRC16_IBM(reinterpret_cast<unsigned char*>(bytes.data()), 3) == expected;
}

// Each value of the register is reached by one message of two bytes, and extended by the bytes from
// `first` up to `end`.
workers::Outcome checkCrcSteps(unsigned int first, unsigned int end)
{
    workers::Outcome outcome{{0}, ""};
    std::vector<bool> reached(0x10000);
    for (unsigned int message = first << 16; message < end << 16; ++message) {
        const unsigned int crc = definedStep(definedStep(0, message & 0xFF), message >> 8 & 0xFF);
        const unsigned int next = definedStep(crc, message >> 16);
        reached[crc] = true;
        ++outcome.counts[0];
        const QByteArray data = wire::little(message, 3);
        if (!crcsAre(next, data)) {
            outcome.difference = "By the definition the CRC of the bytes " + wire::text(data) +
                                 " is " + wire::text(wire::little(next, 2)) + ".";
            return outcome;
        }
    }
    if (std::find(reached.begin(), reached.end(), false) != reached.end())
        outcome.difference = "Two bytes do not reach every value of the register.";
    return outcome;
}

// ---- One reply ----------------------------------------------------------------------------------

/// A driver with one read in flight, and what every reply to it is compared with.
class Judge
{
public:
    Judge() : m_settings(), m_counts(Counts)
    {
        SetComInfo(&m_settings);
        varName indexed = varName();
        indexed.name = QLatin1String(kTag);
        indexed.kind = 2;
        plcAddList.insert(indexed.name, indexed);
        RW_VAR request = RW_VAR();
        request.tagName = QLatin1String(kTag);
        request.stationNo = kStation;
        request.startAddress = m_request.start = 3;
        request.count = 1;
        request.reqFlag = m_request.indexed = 1;
        m_request.tag = request.tagName;
        PLCDataStorage[kStation].handshakeDone = true;
        ReadRegister(&request);
        m_stations = PLCDataStorage;
        m_queue = PLC_driver.sendQueue;
    }

    // Compares the driver's verdict and, if the reply is intact, what it stores.
    bool judge(const QByteArray& reply, Count count)
    {
        ++m_counts[count];
        const int expected = frame_model::verdict(reply);
        if (DataIntegrityJudgment(&reply) != expected)
            return differ(reply, expected == 1 ? "is intact" : "is not intact");
        if (expected == 0)
            return true;
        ++m_counts[Intact];
        return stores(reply);
    }
    workers::Outcome outcome() const { return {m_counts, m_difference}; }

private:
    bool stores(const QByteArray& reply)
    {
        PLCDataStorage = m_stations;
        PLC_driver.sendQueue = m_queue;
        QByteArray bytes = reply;
        if (DataCom(&bytes, bytes.size())->retValue != 1 || PLC_driver.sendQueue.size() != 1 ||
            PLC_driver.sendQueue.first().replyLength != reply.size())
            return differ(reply, "is to be found intact by the first call");
        if (DataCom(&bytes, bytes.size())->retValue != 1 || !PLC_driver.sendQueue.isEmpty())
            return differ(reply, "is to be taken by the second call");
        model::Station expected;
        model::keepValue(expected, m_request, 22, reply);
        const PLCTAGCOMMUNICATION& found = PLCDataStorage[kStation];
        if (found.tagInfo != expected.types)
            return differ(reply, "says type " + wire::text(expected.types[m_request.tag]));
        if (found.tagData != expected.values)
            return differ(reply, "says value " + wire::text(expected.values[m_request.tag]));
        return true;
    }
    bool differ(const QByteArray& reply, const std::string& claim)
    {
        m_difference = "By the definition the reply " + wire::text(reply) + " " + claim + ".";
        return false;
    }

    ComInfo m_settings;
    model::Request m_request;
    QMap<int, PLCTAGCOMMUNICATION> m_stations;
    QList<Protocol> m_queue;
    std::vector<std::uint64_t> m_counts;
    std::string m_difference;
};

// ---- Every reply --------------------------------------------------------------------------------

// Up to the type of the value.
const QByteArray& head()
{
    static const QByteArray bytes =
        wire::hex("10 06 10 02 01 00 4A 00 21 00 00 00 5A 3C 28 45 D2 00 00 00");
    return bytes;
}

bool judgeDamaged(Judge& judge, const QByteArray& reply)
{
    for (int size = 0; size < reply.size(); ++size) {
        if (!judge.judge(reply.left(size), Cut))
            return false;
    }
    QByteArray changed = reply;
    for (int at = 0; at < reply.size(); ++at) {
        for (int step = 1; step < 256; ++step) {
            changed[at] = static_cast<char>(static_cast<quint8>(reply.at(at)) + step);
            if (!judge.judge(changed, Changed))
                return false;
        }
        changed[at] = reply.at(at);
    }
    return true;
}

bool judgeBody(Judge& judge, const QByteArray& body, bool thorough)
{
    const QByteArray open = head() + body + "\x10\x03";
    const unsigned int crc = frame_model::crcOf(frame_model::undoubled(open));
    const QByteArray right = open + wire::little(crc, 2);
    return judge.judge(right, Judged) && judge.judge(open + wire::little(~crc, 2), Judged) &&
           judge.judge(open + "\x10\x10", Judged) && (!thorough || judgeDamaged(judge, right));
}

/// All bodies of a length that begin with one letter, in turn.
class Bodies
{
public:
    Bodies(int size, int first) : m_letters(static_cast<std::size_t>(size), 0)
    {
        m_letters.front() = first;
    }
    QByteArray body() const
    {
        QByteArray bytes;
        for (int letter : m_letters)
            bytes += kAlphabet[letter];
        return bytes;
    }
    bool next()
    {
        for (std::size_t at = m_letters.size() - 1; at > 0; --at) {
            if (++m_letters[at] < kLetters)
                return true;
            m_letters[at] = 0;
        }
        return false;
    }

private:
    std::vector<int> m_letters;
};

// The bodies with one first letter, and the empty one with the first. One of `step` is judged
// thoroughly.
workers::Outcome judgeBodies(int longest, int first, int step)
{
    Judge judge;
    if (first == 0 && !judgeBody(judge, QByteArray(), true))
        return judge.outcome();
    int number = step / 2;
    for (int size = 1; size <= longest; ++size) {
        Bodies bodies(size, first);
        do {
            const bool thorough = ++number % step == 0;
            if (!judgeBody(judge, bodies.body(), thorough))
                return judge.outcome();
        } while (bodies.next());
    }
    return judge.outcome();
}

// Every code of a type, before eight bytes of value.
workers::Outcome judgeTypes()
{
    Judge judge;
    for (unsigned int type = 0; type < 0x10000; ++type) {
        const QByteArray value = wire::little(type, 2) + wire::hex("01 02 03 04 05 06 07 10");
        if (!judgeBody(judge, wire::withDoubledDle(value), false))
            break;
    }
    return judge.outcome();
}

} // namespace

std::vector<workers::Job> crcJobs()
{
    const unsigned int slice = 0x20;
    std::vector<workers::Job> jobs;
    for (unsigned int byte = 0; byte < 0x100; byte += slice)
        jobs.emplace_back([=] { return checkCrcSteps(byte, byte + slice); });
    return jobs;
}

std::vector<workers::Job> jobs(int longest, int thorough)
{
    int bodies = 0;
    for (int i = 0, ofSize = 1; i < longest; ++i)
        bodies += ofSize *= kLetters;
    const int step = qMax(1, bodies / (thorough + kLetters));
    std::vector<workers::Job> jobs;
    jobs.reserve(kLetters + 1);
    for (int first = 0; first < kLetters; ++first)
        jobs.emplace_back([=] { return judgeBodies(longest, first, step); });
    jobs.emplace_back(judgeTypes);
    return jobs;
}

} // namespace replies
