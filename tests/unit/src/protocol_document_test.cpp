#include "driver_fixture.h"

#include <QtCore/QFile>
#include <QtCore/QStringList>

// Compares the examples of docs/protocol.md with the encoder, so that the document stays correct.
// Each example is a block that starts with "```frame", a line of parameters and the frame's bytes.

namespace {

struct Example
{
    QString kind;
    QMap<QString, QString> parameters;
    QByteArray frame;
};

QList<Example> examplesOfDocument()
{
    QFile file(QStringLiteral(MICRO850_SOURCE_DIR "/docs/protocol.md"));
    EXPECT_TRUE(file.open(QIODevice::ReadOnly));
    QStringList blocks = QString::fromUtf8(file.readAll()).split(QStringLiteral("```frame\n"));
    blocks.removeFirst();
    QList<Example> examples;
    for (const QString& block : blocks) {
        QStringList lines = block.section(QStringLiteral("```"), 0, 0).split(QLatin1Char('\n'));
        QStringList words = lines.takeFirst().split(QLatin1Char(' '));
        Example example;
        example.kind = words.takeFirst();
        for (const QString& word : words)
            example.parameters[word.section(QLatin1Char('='), 0, 0)] =
                word.section(QLatin1Char('='), 1);
        example.frame = wire::hex(lines.join(QLatin1Char(' ')).toLatin1().constData());
        examples.append(example);
    }
    return examples;
}

// The frame with this serial number instead of its random one.
QByteArray withSerial(const QByteArray& frame, quint32 serial)
{
    const int kSerial = 28; // 32 in the frame, which starts with DLE ACK DLE STX
    return wire::framed(wire::unframed(frame).replace(kSerial, 3, wire::little(serial, 3)));
}

class ProtocolDocument : public DriverTest
{
protected:
    QByteArray encoded(const Example& example)
    {
        const auto number = [&](const char* name, int base) {
            return example.parameters.value(QLatin1String(name)).toUInt(nullptr, base);
        };
        const auto bytes = [&](const char* name) {
            return QByteArray::fromHex(example.parameters.value(QLatin1String(name)).toLatin1());
        };
        const QByteArray tag = example.parameters.value(QStringLiteral("tag")).toLatin1();
        connectStation(1, bytes("id"), static_cast<quint16>(number("tns", 16)));
        PLC_driver.sendQueue.clear();
        if (example.kind == QLatin1String("identity")) {
            HandshakeFunction(1);
            return PLC_driver.sendQueue.first().frame;
        }
        if (example.kind == QLatin1String("open")) {
            HandshakeFunction(1);
            return withSerial(PLC_driver.sendQueue.last().frame, number("serial", 16));
        }
        confirm(tag.constData(), static_cast<quint8>(number("class", 10)),
                static_cast<quint16>(number("type", 16)));
        const int element = static_cast<int>(number("element", 10));
        const int count = static_cast<int>(number("count", 10));
        RW_VAR request = writeOf(tag.constData(), bytes("value"), element, count);
        if (example.kind == QLatin1String("write"))
            WriteRegister(&request);
        else
            ReadRegister(&request);
        return PLC_driver.sendQueue.first().frame;
    }
};

TEST_F(ProtocolDocument, ShowsTheFramesThatTheEncoderBuilds)
{
    const QList<Example> examples = examplesOfDocument();
    ASSERT_GE(examples.size(), 7);
    for (const Example& example : examples)
        EXPECT_BYTES(encoded(example), example.frame) << example.kind.toStdString();
}

} // namespace
