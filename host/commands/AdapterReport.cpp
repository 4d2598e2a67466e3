#include "AdapterReport.h"

#include "SerialLine.h"
#include "Visible.h"

namespace micro850::host {

namespace {

// A UART reports less than its trigger when it has received nothing for this many characters.
const int kSilentCharacters = 4;

QString phrase(LowLatency lowLatency)
{
    switch (lowLatency) {
    case LowLatency::Set:
        return QStringLiteral("on while the line is open");
    case LowLatency::WasSet:
        return QStringLiteral("on already");
    case LowLatency::NotAllowed:
        return QStringLiteral("this user may not set it");
    case LowLatency::NotOffered:
        return QStringLiteral("the driver does not offer it");
    case LowLatency::Failed:
        return QStringLiteral("the device did not answer");
    case LowLatency::NotAsked:
        break;
    }
    return QStringLiteral("left as it was");
}

const char* word(LowLatency lowLatency)
{
    switch (lowLatency) {
    case LowLatency::Set:
        return "set";
    case LowLatency::WasSet:
        return "was set";
    case LowLatency::NotAllowed:
        return "not allowed";
    case LowLatency::NotOffered:
        return "not offered";
    case LowLatency::Failed:
        return "failed";
    case LowLatency::NotAsked:
        break;
    }
    return "not asked";
}

// "Maker Product (1a2b:0042, serial A1)", from what is known of it.
QString usbText(const Adapter& adapter)
{
    QStringList names;
    for (const QString& name : {adapter.manufacturer, adapter.product}) {
        if (!name.isEmpty())
            names += visible(name);
    }
    QString numbers = visible(adapter.usbId);
    if (!adapter.serial.isEmpty())
        numbers += QStringLiteral(", serial ") + visible(adapter.serial);
    return names.isEmpty() ? QStringLiteral("USB ") + numbers
                           : names.join(QLatin1Char(' ')) + QStringLiteral(" (%1)").arg(numbers);
}

QString latencyText(int closed, int open)
{
    const QString before = QStringLiteral("%1 ms").arg(closed);
    return closed == open ? before
                          : before + QStringLiteral(", %1 ms while the line is open").arg(open);
}

// "1.1 ms", cut to tenths.
QString millisecondsOf(int characters, const PortSettings& port)
{
    const qint64 tenths = qint64(characters) * port.bitsPerByte() * 10000 / port.baud;
    return QStringLiteral("%1.%2 ms").arg(tenths / 10).arg(tenths % 10);
}

// Where nothing is known of the hardware, as in a container that hides it, the flag may be there
// all the same.
bool hasFlag(LowLatency lowLatency)
{
    return lowLatency != LowLatency::NotAsked && lowLatency != LowLatency::NotOffered;
}

QString latencyAdvice(const AdapterReport& report, const PortSettings& port)
{
    const Adapter& adapter = report.open;
    if (report.lowLatency == LowLatency::NotAsked)
        return QString(); // the user wants it so
    if (adapter.latencyTimerMs.value_or(0) > 1) {
        return QStringLiteral("%1: the adapter keeps the end of a reply for up to %2 ms: run "
                              "\"echo 1 | sudo tee /sys/class/tty/%1/device/latency_timer\", or "
                              "install the udev rule of share/micro850/60-micro850-adapters.rules")
            .arg(adapter.name)
            .arg(*adapter.latencyTimerMs);
    }
    if (report.lowLatency == LowLatency::NotAllowed) {
        return QStringLiteral("%1: this user may not ask for low latency: run \"sudo setserial %1 "
                              "low_latency\", or let a udev rule run it as "
                              "share/micro850/60-micro850-adapters.rules shows")
            .arg(adapter.isKnown() ? QStringLiteral("/dev/") + adapter.name
                                   : devicePath(port.device));
    }
    return QString();
}

QString triggerAdvice(const Adapter& adapter, const PortSettings& port)
{
    if (adapter.receiveTrigger.value_or(0) <= 1)
        return QString();
    return QStringLiteral("%1: the port reports bytes in groups of %2, so that the end of a reply "
                          "waits for %3: \"echo 1 | sudo tee /sys/class/tty/%1/rx_trig_bytes\" "
                          "ends that, for one interrupt a byte")
        .arg(adapter.name)
        .arg(*adapter.receiveTrigger)
        .arg(millisecondsOf(kSilentCharacters, port));
}

} // namespace

QStringList AdapterReport::lines() const
{
    if (!open.isKnown() && !hasFlag(lowLatency))
        return {};
    QStringList lines;
    if (!open.usbId.isEmpty())
        lines += QStringLiteral("adapter       ") + usbText(open);
    if (!open.driver.isEmpty())
        lines += QStringLiteral("driver        ") + visible(open.driver);
    lines += QStringLiteral("low latency   ") + phrase(lowLatency);
    if (open.latencyTimerMs) {
        lines +=
            QStringLiteral("latency timer ") +
            latencyText(closed.latencyTimerMs.value_or(*open.latencyTimerMs), *open.latencyTimerMs);
    }
    if (open.receiveTrigger) {
        lines +=
            QStringLiteral("fifo trigger  %1").arg(*open.receiveTrigger) +
            (open.fifo ? QStringLiteral(" of %1 bytes").arg(*open.fifo) : QStringLiteral(" bytes"));
    }
    return lines;
}

Json AdapterReport::object() const
{
    if (!open.isKnown() && !hasFlag(lowLatency))
        return nullptr;
    Json object = Json::object();
    const auto addText = [&object](const char* key, const QString& text) {
        if (!text.isEmpty())
            object[key] = text.toStdString();
    };
    const auto addNumber = [&object](const char* key, const std::optional<int>& number) {
        if (number)
            object[key] = *number;
    };
    addText("device", open.name);
    addText("manufacturer", open.manufacturer);
    addText("product", open.product);
    addText("serial", open.serial);
    addText("usbId", open.usbId);
    addText("driver", open.driver);
    object["lowLatency"] = word(lowLatency);
    addNumber("latencyTimerMs", closed.latencyTimerMs);
    addNumber("latencyTimerMsOpen", open.latencyTimerMs);
    addNumber("receiveTrigger", open.receiveTrigger);
    addNumber("fifo", open.fifo);
    return object;
}

QString AdapterReport::advice(const PortSettings& port) const
{
    QStringList parts = {latencyAdvice(*this, port), triggerAdvice(open, port)};
    parts.removeAll(QString());
    return visible(parts.join(QStringLiteral("; ")));
}

} // namespace micro850::host
