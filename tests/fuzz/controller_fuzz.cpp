// The simulated controller: the fuzzer is its peer, sends raw bytes and well-formed messages, and
// lets time pass. For any input the controller answers with whole controls and frames, and its tags
// keep their types.

#include "Controller.h"
#include "byte_arrays.h"
#include "controller_steps.h"
#include "fuzz_check.h"
#include "fuzz_input.h"
#include "wire.h"

namespace {

using namespace micro850;
using namespace micro850::sim;

const char kTags[] = R"({"tags": [
    {"name": "Bit", "type": "BOOL", "length": 9},
    {"name": "Speed", "type": "INT", "value": 4112},
    {"name": "Zone", "type": "LINT", "length": 66},
    {"name": "Text", "type": "SHORT_STRING", "length": 2, "value": "AB"},
    {"name": "Wide", "type": "STRING2"},
    {"name": "Fixed", "type": "LREAL", "value": 5, "readOnly": true},
    {"name": "Moving", "type": "REAL", "motion": {"kind": "ramp"}}
]})";

class ControllerSession
{
public:
    explicit ControllerSession(FuzzInput& input) : m_input(input) {}

    void run()
    {
        for (int i = 0; i < 200 && !m_input.atEnd(); ++i) {
            step();
            checkSent(m_controller.transmit());
            checkTags();
        }
    }

private:
    void step()
    {
        switch (m_input.below(controller::kSteps)) {
        case controller::kRawBytes:
            return m_controller.receive(toBytes(m_input.block()));
        case controller::kMessage:
            return send(m_input.block());
        case controller::kUnconnected:
            return sendBehind(header('\x0B'));
        case controller::kConnected: {
            const QByteArray head = header('\x0A') + m_connection;
            return sendBehind(head + m_input.bytes(2));
        }
        case controller::kOpen:
            return open();
        case controller::kRead:
            return read();
        case controller::kWrite:
            return write();
        case controller::kWait:
            m_clock.advance(Duration(m_input.word() * 1000));
            return m_controller.tick();
        default:
            return m_controller.powerCycle(m_input.flag());
        }
    }

    quint16 next()
    {
        if (m_input.flag())
            ++m_transaction;
        return m_transaction;
    }

    QByteArray header(char command)
    {
        return QByteArray("\x00\x01", 2) + command + '\0' + wire::little(next(), 2) +
               QByteArray(2, '\0');
    }

    void send(const QByteArray& data) { m_controller.receive(toBytes(wire::framed(data))); }

    void sendBehind(const QByteArray& head) { send(head + m_input.block()); }

    void open()
    {
        const quint32 serial = 0xC61600u + m_input.byte();
        send(wire::forwardOpenRequest(next(), serial));
    }

    QByteArray path()
    {
        static const char* names[] = {"Bit",  "Speed", "Zone",   "Text",
                                      "Wide", "Fixed", "Moving", "None"};
        const char* name = names[m_input.below(8)];
        const bool wide = m_input.flag();
        return wire::tagPath(name, wide ? m_input.word() : m_input.byte());
    }

    void read()
    {
        const QByteArray tag = path();
        const quint16 count = m_input.byte();
        m_controller.receive(toBytes(wire::readRequest(next(), m_connection, tag, count)));
    }

    void write()
    {
        const QByteArray tag = path();
        const auto type = static_cast<quint16>(0xC0 + m_input.below(0x1C));
        const quint16 count = m_input.byte();
        const quint16 transaction = next();
        m_controller.receive(toBytes(
            wire::writeRequest(transaction, m_connection, tag, type, count, m_input.block())));
    }

    // Every byte sent belongs to a control or to a frame with the right CRC.
    void checkSent(const Bytes& sent)
    {
        const QByteArray line = toByteArray(sent);
        for (int at = 0; at < line.size();) {
            FUZZ_CHECK(line.size() - at >= 2 && line.at(at) == '\x10');
            const char control = line.at(at + 1);
            if (control != '\x02') {
                FUZZ_CHECK(control == '\x06' || control == '\x15' || control == '\x05');
                at += 2;
                continue;
            }
            const int end = endOfFrame(line, at);
            const QByteArray data = wire::unframed(QByteArray("\x10\x06") + line.mid(at, end - at));
            FUZZ_CHECK(data.size() >= 9 && data.size() <= 12 + 4 + 2 + 480);
            FUZZ_CHECK((data.at(2) & 0x40) != 0);
            rememberConnection(data);
            at = end;
        }
    }

    static int endOfFrame(const QByteArray& line, int at)
    {
        for (at += 2; at + 1 < line.size(); ++at) {
            if (line.at(at) != '\x10')
                continue;
            if (line.at(at + 1) == '\x03')
                break;
            FUZZ_CHECK(line.at(at + 1) == '\x10');
            ++at;
        }
        FUZZ_CHECK(line.size() - at >= 4);
        return at + 4;
    }

    void rememberConnection(const QByteArray& data)
    {
        if (data.size() >= 14 && data.mid(8, 4) == QByteArray("\xD4\0\0\0", 4))
            m_connection = data.mid(12, 2);
    }

    void checkTags()
    {
        FUZZ_CHECK(m_controller.tags().tags().size() == 7);
        for (const auto& [name, tag] : m_controller.tags().tags()) {
            FUZZ_CHECK(tag.elements.size() == tag.initial.size());
            FUZZ_CHECK(!tag.readOnly || tag.elements == tag.initial);
            for (const Bytes& element : tag.elements) {
                const auto size = static_cast<std::size_t>(tag.type->size);
                FUZZ_CHECK(tag.type->kind == CipKind::String || element.size() == size);
            }
        }
    }

    FuzzInput& m_input;
    VirtualClock m_clock;
    Controller m_controller{m_clock, table()};
    QByteArray m_connection = QByteArray(2, '\0');
    quint16 m_transaction = 0;

    static TagTable table()
    {
        static const TagTable once = TagTable::fromText(kTags, "tags");
        return once;
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    FuzzInput input(bytes, size);
    ControllerSession(input).run();
    return 0;
}
