#include "scenario_fixture.h"

#include "byte_arrays.h"

namespace {

const int kVaries = -1;
const int kMostJudgements = 11;

quint32 numberAt(const QByteArray& bytes, int at, int size)
{
    quint32 number = 0;
    for (int i = 0; i < size; ++i)
        number |= static_cast<quint32>(static_cast<quint8>(bytes.at(at + i))) << (8 * i);
    return number;
}

/// Tag and element of a path, like "A[3]".
std::string pathText(const QByteArray& path)
{
    const int size = static_cast<quint8>(path.at(1));
    const std::string name = path.mid(2, size).toStdString();
    const QByteArray element = path.mid(2 + size + size % 2);
    if (element.isEmpty())
        return name;
    const bool isByte = element.at(0) == '\x28';
    return name + "[" +
           std::to_string(numberAt(element, isByte ? 1 : 2, element.size() - (isByte ? 1 : 2))) +
           "]";
}

// The position after the first frame: it ends with DLE ETX and two bytes, and a doubled DLE is
// data. -1 if no frame is complete.
int endOfFrame(const QByteArray& bytes)
{
    const int start = bytes.indexOf(QByteArray("\x10\x02", 2));
    for (int i = start + 2; start >= 0 && i + 3 < bytes.size(); ++i) {
        if (bytes.at(i) != '\x10')
            continue;
        if (bytes.at(i + 1) == '\x03')
            return i + 4;
        ++i;
    }
    return -1;
}

// The frame with a DLE ACK before it. After a CRC of two DLEs comes a byte, so that they are not
// the end.
QByteArray asTheDriverExpects(const QByteArray& bytes)
{
    if (bytes.isEmpty())
        return bytes;
    const QByteArray frame = bytes.mid(bytes.indexOf(QByteArray("\x10\x02", 2)));
    const bool endsInDles = frame.endsWith(QByteArray("\x10\x10", 2));
    return wire::hex("10 06") + frame + (endsInDles ? QByteArray(1, '\0') : QByteArray());
}

} // namespace

std::string requestText(const QByteArray& frame)
{
    const QByteArray data = wire::unframed(frame);
    if (data.size() < 10)
        return "no request";
    const std::string tns = std::to_string(numberAt(data, 4, 2)) + " ";
    if (data.at(2) == '\x0B')
        return tns + (data.at(8) == '\x01' ? "identity" : "open");
    const int pathSize = 2 * static_cast<quint8>(data.at(13));
    const int afterPath = 14 + pathSize;
    const std::string tag = pathText(data.mid(14, pathSize));
    if (data.at(12) == '\x52')
        return tns + "read " + tag + " x" + std::to_string(numberAt(data, afterPath, 2));
    return tns + "write " + tag + " x" + std::to_string(numberAt(data, afterPath + 2, 2)) + " = " +
           wire::text(data.mid(afterPath + 8));
}

bool isAnswerTo(const QByteArray& frame, const QByteArray& reply)
{
    const QByteArray asked = wire::unframed(frame);
    const QByteArray data = wire::unframed(reply);
    return data.size() > 8 && data.at(2) == (asked.at(2) | '\x40') &&
           data.mid(4, 2) == asked.mid(4, 2);
}

ScenarioTest::ScenarioTest()
    : m_line(std::make_unique<micro850::sim::FaultyLine>(clock, controller)),
      m_timeOfDay(QTime(12, 0, 0))
{
    // The driver's time of day stands still, so that it opens the same connection again.
    controller.server().setReplacesConnections(true);
}

void ScenarioTest::restart()
{
    DriverTest::restart();
    controller.powerCycle(false);
    m_line = std::make_unique<micro850::sim::FaultyLine>(clock, controller);
    exchanges.clear();
    m_popped = 0;
    m_input.clear();
    calls = 0;
}

void ScenarioTest::defineTags(const std::string& tags)
{
    controller.download(micro850::sim::TagTable::fromText("{\"tags\": [" + tags + "]}", "tags"));
}

void ScenarioTest::faults(const std::string& rules)
{
    for (const micro850::sim::Fault& fault :
         micro850::sim::faultsFromText("{\"faults\": [" + rules + "]}", "faults"))
        line().add(fault);
}

void ScenarioTest::pollCyclically(const std::vector<Variable>& variables)
{
    QList<HOSTVAR> list;
    for (const Variable& variable : variables) {
        HOSTVAR entry = HOSTVAR();
        entry.areaType = 5;
        entry.tagName = QString::fromLatin1(variable.tag);
        entry.addressText = QString::number(variable.element);
        entry.count = variable.count;
        list.append(entry);
    }
    ReCreatReadVarList(&list);
}

int ScenarioTest::write(const char* tag, const QByteArray& value, int count, int element, int index,
                        int station)
{
    // Each tag has its own area: a write replaces a queued write to the same area and element, even
    // of another tag.
    return SetRegisterData(QString::fromLatin1(tag),
                           static_cast<int>(qHash(QByteArray(tag)) % 1000),
                           QString::number(element), station, value, count, 3, index);
}

void ScenarioTest::pass(int ms)
{
    for (; ms > 0; --ms) {
        clock.advance(std::chrono::milliseconds(1));
        line().tick();
    }
}

void ScenarioTest::receiveInput()
{
    m_input += toByteArray(line().transmit());
}

// Returns the first frame that arrives within the time-out, or nothing.
QByteArray ScenarioTest::collect()
{
    for (int ms = 0;; ++ms) {
        receiveInput();
        const int end = endOfFrame(m_input);
        if (end >= 0) {
            const QByteArray reply = m_input.left(end);
            m_input.remove(0, end);
            return reply;
        }
        if (ms == kTimeoutMs)
            return QByteArray();
        pass(1);
    }
}

int ScenarioTest::dataCom(QByteArray& reply, int length)
{
    ++calls;
    return DataCom(&reply, length)->retValue;
}

// For a reply of varying length, one call judges it and the next one stores it. After a time-out
// the driver is called without bytes until it counts a failure.
void ScenarioTest::passToDriver(Protocol& sent, QByteArray reply, Exchange& exchange)
{
    const bool varies = sent.replyLength == kVaries;
    if (reply.isEmpty()) {
        for (int i = 0; i < kMostJudgements && varies && sent.replyLength == kVaries; ++i)
            dataCom(reply, 0);
        exchange.retValue = dataCom(reply, 0);
        return;
    }
    exchange.retValue = dataCom(reply, reply.size());
    if (varies && exchange.retValue == 1)
        exchange.retValue = dataCom(reply, reply.size());
}

bool ScenarioTest::transact()
{
    ++calls;
    Protocol* sent = ComCommunication();
    if (!sent)
        return false;
    receiveInput();
    if (emptiesInput)
        m_input.clear();
    Exchange exchange;
    exchange.frame = sent->frame;
    exchange.request = requestText(sent->frame);
    if (!isDead || !isDead(*sent))
        line().receive(toBytes(sent->frame));
    exchange.reply = collect();
    if (looksForFrame)
        exchange.reply = asTheDriverExpects(exchange.reply);
    if (accepts && !accepts(exchange.frame, exchange.reply))
        exchange.reply.clear();
    passToDriver(*sent, exchange.reply, exchange);
    exchanges.push_back(exchange);
    return true;
}

void ScenarioTest::transact(int times)
{
    for (int i = 0; i < times; ++i)
        transact();
}

std::vector<std::string> ScenarioTest::popRequests()
{
    std::vector<std::string> requests;
    for (; m_popped < exchanges.size(); ++m_popped)
        requests.push_back(exchanges[m_popped].request);
    return requests;
}

std::string ScenarioTest::shown(const char* tag, int count, int element, int station)
{
    QByteArray out;
    const int known =
        GetRegisterData(QString::fromLatin1(tag), 5, QString::number(element), station, out, count);
    return known == 1 ? wire::text(out) : "none";
}

std::string ScenarioTest::inController(const char* tag, std::size_t element)
{
    return wire::text(toByteArray(controller.tags().find(tag)->elements.at(element)));
}

void ScenarioTest::setInController(const char* tag, const char* bytes, std::size_t element)
{
    controller.tags().find(tag)->elements.at(element) = toBytes(wire::hex(bytes));
}
