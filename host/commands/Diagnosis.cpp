#include "Diagnosis.h"

#include "Visible.h"

#include <algorithm>

namespace micro850::host {

namespace {

// From this share on, lines get noticeably slower.
const double kManyDamaged = 1;
// A spread that a controller, which answers between two of its cycles, does not explain.
const int kMuchLonger = 10;
const std::chrono::milliseconds kLong(100);

QString settingsOf(const PortSettings& port)
{
    return port.text().section(QStringLiteral(", "), -1);
}

QString letterOf(Parity parity)
{
    switch (parity) {
    case Parity::Even:
        return QStringLiteral("even");
    case Parity::Odd:
        return QStringLiteral("odd");
    case Parity::None:
        break;
    }
    return QStringLiteral("none");
}

QStringList deviceAdvice(const Findings& found)
{
    const QString device = visible(found.port.device);
    const DeviceRights& rights = found.rights;
    if (found.port.isNetwork())
        return {};
    if (!rights.exists && found.otherDevices.isEmpty())
        return {
            QStringLiteral("plug in the adapter: this machine has no USB serial device (\"dmesg "
                           "| tail\" shows whether the kernel sees it)")};
    if (!rights.exists)
        return {QStringLiteral("name the right device: this machine has ") +
                visible(found.otherDevices.join(QStringLiteral(", ")))};
    if (!rights.isDevice)
        return {device + QStringLiteral(" is no device: name a serial one, such as /dev/ttyUSB0")};
    if (!rights.allowed && !rights.isMember)
        return {
            QStringLiteral("let this user use the device: run \"sudo usermod -aG %1 $USER\", and "
                           "log in again")
                .arg(visible(rights.group))};
    if (!rights.allowed)
        return {
            QStringLiteral("the group %1 may not read and write %2: run \"sudo chmod g+rw %2\", or "
                           "correct the udev rule that made it so")
                .arg(visible(rights.group), device)};
    return {};
}

QStringList openAdvice(const Findings& found)
{
    if (!found.gateway.isEmpty())
        return {QStringLiteral(
            "the gateway owns the port: look at the line with \"micro850-host poll\" "
            "or \"micro850-gateway status\", or stop the gateway and begin again")};
    if (!found.users.isEmpty())
        return {QStringLiteral("end what uses the device: ") +
                found.users.join(QStringLiteral(", "))};
    if (found.port.isNetwork())
        return {
            QStringLiteral("look after the device server: its power, its address, its port, and "
                           "whether another client holds it (\"ping\" shows whether the host is "
                           "there)")};
    return {};
}

QStringList silenceAdvice(const Findings& found)
{
    if (found.hasEcho)
        return {
            QStringLiteral("only our own bytes come back: switch off the echo of the adapter, and "
                           "look whether transmit and receive are connected to each other")};
    if (found.cameLate)
        return {
            QStringLiteral("replies come after the time-out: set a longer one with --timeout, for "
                           "example --timeout 2000")};
    if (found.bytesCame)
        return {QStringLiteral(
            "bytes come, but no reply: set the channel of the controller to DF1 "
            "full-duplex with the checksum CRC, and look at speed, parity and wiring")};
    if (found.isPseudoTerminal && !found.peers.isEmpty())
        return {
            QStringLiteral("%1, at the other end of this pseudo-terminal, does not answer: end it "
                           "and start the simulator again")
                .arg(found.peers.join(QStringLiteral(", ")))};
    return {QStringLiteral(
        "nothing comes back: is the controller on? Is the cable in its serial port, "
        "with transmit to receive (RS-232: crossed; RS-485: A and B not swapped) and "
        "ground connected? Is its channel set to DF1 full-duplex?")};
}

QStringList settingsAdvice(const Findings& found)
{
    const PortSettings& right = *found.answering;
    if (settingsOf(right) == settingsOf(found.port))
        return {};
    QString advice = QStringLiteral("the controller answers at %1, not at %2: ")
                         .arg(settingsOf(right), settingsOf(found.port));
    if (right.parity == found.port.parity)
        return {advice +
                QStringLiteral("use --baud %1, or \"baud\": %1 in the project").arg(right.baud)};
    return {advice +
            QStringLiteral("set \"port\": { \"baud\": %1, \"parity\": \"%2\" } in a project")
                .arg(right.baud)
                .arg(letterOf(right.parity))};
}

QStringList qualityAdvice(const Findings& found)
{
    QStringList advice;
    const ReadSeries& series = found.series;
    if (found.hasEcho)
        advice +=
            QStringLiteral("what is sent comes back as well: switch off the echo of the adapter");
    if (series.percentDamaged() >= kManyDamaged)
        advice +=
            QStringLiteral("%1 % of the replies are damaged: look at shield, ground and "
                           "termination, keep the cable away from drives, or use a lower speed")
                .arg(series.percentDamaged(), 0, 'f', 1);
    else if (series.damaged + series.refused > 0)
        advice +=
            QStringLiteral("few messages are damaged, and were repeated: that does no harm, but "
                           "look at shield and ground when it becomes more");
    if (series.answered < series.reads)
        advice += QStringLiteral("%1 of %2 reads had no answer: look for a loose contact, and for "
                                 "another master on the line")
                      .arg(series.reads - series.answered)
                      .arg(series.reads);
    if (series.roundTrip(99) > kMuchLonger * series.roundTrip(50) && series.roundTrip(99) > kLong)
        advice +=
            QStringLiteral("some replies take much longer than others: look at the cycle time of "
                           "the program, and at the network if the line is behind one");
    if (!found.adapterAdvice.isEmpty())
        advice += found.adapterAdvice;
    return advice;
}

} // namespace

Duration ReadSeries::roundTrip(int percent) const
{
    if (roundTrips.isEmpty())
        return Duration(0);
    QVector<Duration> sorted = roundTrips;
    std::sort(sorted.begin(), sorted.end());
    const int at = (sorted.size() * percent + 99) / 100 - 1;
    return sorted.at(std::clamp(at, 0, sorted.size() - 1));
}

double ReadSeries::percentDamaged() const
{
    const double came = answered + static_cast<double>(damaged);
    return came > 0 ? 100.0 * static_cast<double>(damaged) / came : 0;
}

QStringList adviceOf(const Findings& found)
{
    const QStringList device = deviceAdvice(found);
    if (!device.isEmpty())
        return device;
    if (!found.gateway.isEmpty() || !found.openError.isEmpty())
        return openAdvice(found);
    if (!found.answering)
        return silenceAdvice(found) +
               (found.adapterAdvice.isEmpty() ? QStringList() : QStringList(found.adapterAdvice));
    return settingsAdvice(found) + qualityAdvice(found);
}

} // namespace micro850::host
