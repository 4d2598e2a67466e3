// client_serialbus DEVICE BAUD REGISTERS READS: reads holding registers through Qt SerialBus. Each
// read starts as soon as the one before it is finished.

#include "client.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QVariant>
#include <QtSerialBus/QModbusDataUnit>
#include <QtSerialBus/QModbusReply>
#include <QtSerialBus/QModbusRtuSerialMaster>
#include <QtSerialPort/QSerialPort>

namespace {

class Reader
{
public:
    Reader(QModbusRtuSerialMaster& port, const Task& task) : m_port(port), m_task(task) {}

    void readNext()
    {
        if (m_done == 1)
            m_watch.start();
        const QModbusDataUnit wanted(QModbusDataUnit::HoldingRegisters, 0,
                                     static_cast<quint16>(m_task.values));
        QModbusReply* const reply = m_port.sendReadRequest(wanted, 1);
        if (!reply)
            fail(m_port.errorString());
        QObject::connect(reply, &QModbusReply::finished, [this, reply] { take(reply); });
    }

private:
    void take(QModbusReply* reply)
    {
        if (reply->error() != QModbusDevice::NoError ||
            reply->result().valueCount() != static_cast<uint>(m_task.values))
            fail(reply->errorString());
        reply->deleteLater();
        if (++m_done <= m_task.reads) {
            readNext();
            return;
        }
        m_watch.report(m_task.reads);
        QCoreApplication::quit();
    }

    [[noreturn]] static void fail(const QString& why)
    {
        std::fprintf(stderr, "client_serialbus: %s\n", qPrintable(why));
        std::exit(1);
    }

    QModbusRtuSerialMaster& m_port;
    Task m_task;
    Stopwatch m_watch;
    int m_done = 0;
};

} // namespace

int main(int argc, char** argv)
{
    const Task task = taskFrom(argc, argv);
    QCoreApplication app(argc, argv);
    QModbusRtuSerialMaster port;
    port.setConnectionParameter(QModbusDevice::SerialPortNameParameter,
                                QString::fromLocal8Bit(task.device));
    port.setConnectionParameter(QModbusDevice::SerialBaudRateParameter, task.baud);
    port.setConnectionParameter(QModbusDevice::SerialDataBitsParameter, QSerialPort::Data8);
    port.setConnectionParameter(QModbusDevice::SerialParityParameter, QSerialPort::NoParity);
    port.setConnectionParameter(QModbusDevice::SerialStopBitsParameter, QSerialPort::OneStop);
    if (!port.connectDevice()) {
        std::fprintf(stderr, "client_serialbus: %s: %s\n", task.device,
                     qPrintable(port.errorString()));
        return 2;
    }
    Reader reader(port, task);
    reader.readNext();
    return QCoreApplication::exec();
}
