#ifndef MICRO850_HOST_SERIALLINE_H
#define MICRO850_HOST_SERIALLINE_H

#include "DeviceWatch.h"
#include "LatencyFlag.h"
#include "Line.h"
#include "PortSettings.h"

#include <QtSerialPort/QSerialPort>

#include <memory>

namespace micro850::host {

/// The path of the device that a user names: a name that does not begin with / is looked for in the
/// current folder, then in /dev.
QString devicePath(const QString& name);

/// A serial port or pseudo-terminal.
class SerialLine : public Line
{
public:
    /// `control` must live as long.
    explicit SerialLine(const PortSettings& settings,
                        const SerialControl& control = systemSerialControl());
    ~SerialLine() override { SerialLine::close(); }

    bool open(QString& error) override;
    void close() override;
    bool isOpen() const override;
    void discardInput() override;
    bool send(const QByteArray& bytes) override;
    bool receive(QByteArray& bytes, Duration wait) override;
    void pause(Duration time) override;
    bool awaitReturn(Duration time) override;
    LowLatency lowLatency() const override { return m_latency.state(); }

private:
    int descriptor() const;

    PortSettings m_settings;
    QSerialPort m_port;
    std::unique_ptr<DeviceWatch> m_return; ///< while the device is gone
    LatencyFlag m_latency;
};

} // namespace micro850::host

#endif
