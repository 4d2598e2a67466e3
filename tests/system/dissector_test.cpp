// The Wireshark dissector as an independent witness: frames of the driver are written into a
// capture file, and tshark's decoding is compared with the requests.

#include "driver_fixture.h"

#include <QtCore/QDataStream>
#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>

namespace {

using wire::hex;

const quint32 kLinkTypeUser0 = 147;

class Dissector : public DriverTest
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        connectStation(1, hex("5A 10"), 0x1021);
    }

    /// The given fields of each packet, one row per packet; fields of tshark's own dissectors too.
    QList<QStringList> dissected(const QList<QByteArray>& packets, const QStringList& fields)
    {
        const QString path = m_dir.filePath(QStringLiteral("frames.pcap"));
        writeCapture(path, packets);
        QStringList arguments = {
            QStringLiteral("-X"),
            QStringLiteral("lua_script:" MICRO850_SOURCE_DIR "/tools/wireshark/df1_cip.lua"),
            QStringLiteral("-r"),
            path,
            QStringLiteral("-T"),
            QStringLiteral("fields"),
            QStringLiteral("-E"),
            QStringLiteral("separator=;")};
        for (const QString& field : fields)
            arguments << QStringLiteral("-e") << field;
        QProcess tshark;
        tshark.start(QStringLiteral("tshark"), arguments);
        EXPECT_TRUE(tshark.waitForFinished(120000)) << "tshark did not end: is it installed?";
        EXPECT_EQ(tshark.exitCode(), 0) << tshark.readAllStandardError().constData();
        QList<QStringList> rows;
        const QStringList lines =
            QString::fromUtf8(tshark.readAllStandardOutput()).split(QLatin1Char('\n'));
        for (int i = 0; i < packets.size() && i < lines.size(); ++i)
            rows.append(lines.at(i).split(QLatin1Char(';')));
        EXPECT_EQ(rows.size(), packets.size());
        return rows;
    }

    static QByteArray lastFrame() { return PLC_driver.sendQueue.last().frame; }

private:
    // A classic capture file, written here to be independent of the tools' writer.
    static void writeCapture(const QString& path, const QList<QByteArray>& packets)
    {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        QDataStream out(&file);
        out.setByteOrder(QDataStream::LittleEndian);
        out << quint32(0xA1B2C3D4) << quint16(2) << quint16(4) << qint32(0) << quint32(0)
            << quint32(65535) << kLinkTypeUser0;
        for (const QByteArray& packet : packets) {
            const quint32 size = static_cast<quint32>(packet.size());
            out << quint32(0) << quint32(0) << size << size;
            out.writeRawData(packet.constData(), packet.size());
        }
    }

    QTemporaryDir m_dir;
};

struct Asked
{
    const char* tag;
    int element;
    int count;
};

TEST_F(Dissector, DecodesTagElementAndCountOfARead)
{
    const QList<Asked> asked = {{"Speed", 0, 1},        {"Zone", 1, 15},         {"Level", 16, 16},
                                {"Level", 255, 1},      {"Temperature", 256, 1}, {"T", 4096, 2},
                                {"Recipe_10", 65535, 3}};
    QList<QByteArray> frames;
    for (const Asked& ask : asked) {
        confirm(ask.tag, 3, 0xC3);
        RW_VAR request = readOf(ask.tag, ask.element, ask.count);
        ReadRegister(&request);
        frames.append(lastFrame());
    }

    const QList<QStringList> rows =
        dissected(frames, {QStringLiteral("df1.service"), QStringLiteral("df1.tag"),
                           QStringLiteral("df1.element"), QStringLiteral("df1.count"),
                           QStringLiteral("df1.tns"), QStringLiteral("df1.connection"),
                           QStringLiteral("df1.crc_good")});

    for (int i = 0; i < rows.size(); ++i) {
        const QString element = asked[i].element ? QString::number(asked[i].element) : QString();
        const QStringList expected = {QStringLiteral("0x52"),
                                      QString::fromLatin1(asked[i].tag),
                                      element,
                                      QString::number(asked[i].count),
                                      QString::number(0x1021),
                                      QStringLiteral("0x105a"),
                                      QStringLiteral("1")};
        EXPECT_EQ(rows[i], expected) << rows[i].join(QLatin1Char(';')).toStdString();
    }
}

TEST_F(Dissector, DecodesTypeAndValueOfAWrite)
{
    confirm("Setpoint", 4, 0xCA);
    RW_VAR request = writeOf("Setpoint", hex("10 10 10 41"), 16, 2);
    WriteRegister(&request);

    const QList<QStringList> rows =
        dissected({lastFrame()}, {QStringLiteral("df1.service"), QStringLiteral("df1.tag"),
                                  QStringLiteral("df1.element"), QStringLiteral("df1.type"),
                                  QStringLiteral("df1.count"), QStringLiteral("df1.value"),
                                  QStringLiteral("df1.crc_good")});

    const QStringList expected = {QStringLiteral("0x53"), QStringLiteral("Setpoint"),
                                  QStringLiteral("16"),   QStringLiteral("0x00ca"),
                                  QStringLiteral("1"),    QStringLiteral("10101041"),
                                  QStringLiteral("1")};
    EXPECT_EQ(rows.value(0), expected) << rows.value(0).join(QLatin1Char(';')).toStdString();
}

// Wireshark's own CIP dissector is independent of this project.
TEST_F(Dissector, LeavesTheRequestsToWiresharksCipDissectorToo)
{
    PLC_driver.sendQueue.clear();
    HandshakeFunction(1);
    QList<QByteArray> frames = {PLC_driver.sendQueue[0].frame, PLC_driver.sendQueue[1].frame};
    confirm("Speed", 3, 0xC3);
    RW_VAR request = readOf("Speed", 7);
    ReadRegister(&request);
    frames.append(lastFrame());

    const QList<QStringList> rows =
        dissected(frames, {QStringLiteral("cip.sc"), QStringLiteral("cip.class"),
                           QStringLiteral("cip.symbol"), QStringLiteral("cip.member")});

    EXPECT_EQ(rows.value(0).value(0), QStringLiteral("0x01"));
    EXPECT_EQ(rows.value(0).value(1), QStringLiteral("0x01"));
    EXPECT_EQ(rows.value(1).value(0), QStringLiteral("0x54"));
    EXPECT_TRUE(rows.value(1).value(1).startsWith(QStringLiteral("0x06")));
    EXPECT_EQ(rows.value(2).value(2), QStringLiteral("Speed"));
    EXPECT_EQ(rows.value(2).value(3), QStringLiteral("0x07"));
}

TEST_F(Dissector, ShowsTheStatusOfARefusedRequestAndABadCrc)
{
    QByteArray corrupt = wire::readReply(0x21, 0xC3, hex("D2 04"));
    corrupt[22] = static_cast<char>(corrupt[22] ^ 1);

    const QList<QStringList> rows =
        dissected({wire::errorReply(0x21, 0x52, 0x05), corrupt, hex("10 06")},
                  {QStringLiteral("df1.cip_status"), QStringLiteral("df1.response"),
                   QStringLiteral("df1.crc_good"), QStringLiteral("df1.link"),
                   QStringLiteral("_ws.col.Info")});

    EXPECT_EQ(rows.value(0).value(0), QStringLiteral("0x05"));
    EXPECT_EQ(rows.value(0).value(1), QStringLiteral("1"));
    EXPECT_TRUE(rows.value(0).value(4).contains(QStringLiteral("Path destination unknown")));
    EXPECT_EQ(rows.value(1).value(2), QStringLiteral("0"));
    EXPECT_EQ(rows.value(2).value(3), QStringLiteral("ACK"));
}

} // namespace
