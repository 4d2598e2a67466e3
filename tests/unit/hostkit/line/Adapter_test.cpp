// A tree as the kernel shows it, for the numbers of /dev/null: a device that is there on every
// system, whatever hardware the machine has.

#include "Adapter.h"

#include <gtest/gtest.h>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>

#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

using namespace micro850::host;

namespace {

const char kDevice[] = "/dev/null"; // 1:3 on every system
const char kUsb[] = "devices/pci0000:00/0000:00:14.0/usb1/1-2";

class Adapters : public ::testing::Test
{
protected:
    Adapters()
    {
        EXPECT_TRUE(m_dir.isValid());
        folder("dev/char");
        folder("class/tty");
        for (const char* bus : {"usb", "usb-serial", "pnp", "serial-base"})
            folder(QStringLiteral("bus/") + bus + "/drivers");
    }

    QString path(const QString& name) const { return m_dir.filePath(name); }
    void folder(const QString& name) const { EXPECT_TRUE(QDir(path("")).mkpath(name)); }
    void file(const QString& name, const QByteArray& text) const
    {
        QFile out(path(name));
        ASSERT_TRUE(out.open(QIODevice::WriteOnly)) << name.toStdString();
        out.write(text);
    }
    // Links are relative, as the kernel's.
    void link(const QString& name, const QString& target) const
    {
        const QString parent = name.section('/', 0, -2);
        folder(parent);
        ASSERT_TRUE(QFile::link(QDir(path(parent)).relativeFilePath(path(target)), path(name)))
            << name.toStdString();
    }
    void belongs(const QString& device, const QString& bus, const QString& driver) const
    {
        folder(device);
        link(device + "/subsystem", "bus/" + bus);
        folder("bus/" + bus + "/drivers/" + driver);
        link(device + "/driver", "bus/" + bus + "/drivers/" + driver);
    }
    // The terminal `name` of the device that has it.
    void terminal(const QString& name, const QString& device) const
    {
        const QString node = device + "/tty/" + name;
        folder(node);
        link(node + "/device", device);
        link("class/tty/" + name, node);
        link("dev/char/1:3", node);
    }
    void usbDevice() const
    {
        belongs(kUsb, "usb", "usb");
        file(kUsb + QStringLiteral("/idVendor"), "1a2b\n");
        file(kUsb + QStringLiteral("/idProduct"), "0042\n");
        // The hub above it has an identity as well.
        file("devices/pci0000:00/0000:00:14.0/usb1/idVendor", "ffff\n");
        file("devices/pci0000:00/0000:00:14.0/usb1/product", "Hub\n");
    }
    // An adapter with a driver of the bus usb-serial.
    QString usbSerial(const QString& driver) const
    {
        usbDevice();
        const QString port = kUsb + QStringLiteral("/1-2:1.0/ttyUSB0");
        belongs(kUsb + QStringLiteral("/1-2:1.0"), "usb", driver);
        belongs(port, "usb-serial", driver);
        terminal("ttyUSB0", port);
        return port;
    }
    Adapter adapter(const QString& device = kDevice) const { return adapterOf(device, path("")); }

private:
    QTemporaryDir m_dir;
};

} // namespace

TEST_F(Adapters, OfUsbHaveTheirNamesDriverAndTimer)
{
    const QString port = usbSerial("some_serial");
    file(kUsb + QStringLiteral("/manufacturer"), "Maker\n");
    file(kUsb + QStringLiteral("/product"), "USB to serial\n");
    file(kUsb + QStringLiteral("/serial"), "A1B2\n");
    file(port + "/latency_timer", "16\n");
    const Adapter found = adapter();
    EXPECT_TRUE(found.isKnown());
    EXPECT_EQ(found.name, QString("ttyUSB0"));
    EXPECT_EQ(found.driver, QString("some_serial"));
    EXPECT_EQ(found.manufacturer, QString("Maker"));
    EXPECT_EQ(found.product, QString("USB to serial"));
    EXPECT_EQ(found.serial, QString("A1B2"));
    EXPECT_EQ(found.usbId, QString("1a2b:0042"));
    EXPECT_EQ(found.latencyTimerMs, 16);
    EXPECT_FALSE(found.receiveTrigger);
    EXPECT_FALSE(found.fifo);
    file(port + "/latency_timer", "1\n");
    EXPECT_EQ(adapter().latencyTimerMs, 1);
}

TEST_F(Adapters, OfUsbMayTellNothingOfThemselves)
{
    usbSerial("some_serial");
    const Adapter found = adapter();
    EXPECT_EQ(found.usbId, QString("1a2b:0042"));
    EXPECT_EQ(found.manufacturer + found.product + found.serial, QString()) << "nor the hub's";
    EXPECT_FALSE(found.latencyTimerMs);
}

// A modem's driver has no bus of its own: the terminal belongs to the interface.
TEST_F(Adapters, WithoutABusOfTheirOwnHaveTheInterfacesDriver)
{
    usbDevice();
    belongs(kUsb + QStringLiteral("/1-2:1.0"), "usb", "some_modem");
    terminal("ttyACM0", kUsb + QStringLiteral("/1-2:1.0"));
    const Adapter found = adapter();
    EXPECT_EQ(found.name, QString("ttyACM0"));
    EXPECT_EQ(found.driver, QString("some_modem"));
    EXPECT_EQ(found.usbId, QString("1a2b:0042"));
}

TEST_F(Adapters, BuiltInHaveATrigger)
{
    for (const bool newerKernel : {false, true}) {
        QDir(path("devices")).removeRecursively();
        QDir(path("class/tty")).removeRecursively();
        QDir(path("dev/char")).removeRecursively();
        const QString uart = "devices/pnp0/00:00";
        QString port = uart;
        belongs(uart, "pnp", "serial");
        if (newerKernel) {
            belongs(uart + "/00:00:0", "serial-base", "ctrl");
            port = uart + "/00:00:0/00:00:0.0";
            belongs(port, "serial-base", "port");
        }
        terminal("ttyS0", port);
        file(port + "/tty/ttyS0/rx_trig_bytes", "8\n");
        file(port + "/tty/ttyS0/xmit_fifo_size", "16\n");
        const Adapter found = adapter();
        EXPECT_EQ(found.name, QString("ttyS0"));
        EXPECT_EQ(found.driver, QString("serial")) << newerKernel;
        EXPECT_EQ(found.usbId, QString());
        EXPECT_EQ(found.receiveTrigger, 8);
        EXPECT_EQ(found.fifo, 16);
        EXPECT_FALSE(found.latencyTimerMs);
    }
}

// Another UART has a buffer for sending, of which the trigger says nothing.
TEST_F(Adapters, WithoutATriggerHaveNoFifo)
{
    const QString uart = "devices/platform/serial8250";
    belongs(uart, "pnp", "serial8250");
    terminal("ttyS0", uart);
    file(uart + "/tty/ttyS0/xmit_fifo_size", "16\n");
    EXPECT_FALSE(adapter().receiveTrigger);
    EXPECT_FALSE(adapter().fifo);
}

TEST_F(Adapters, AreFoundThroughLinksToTheDevice)
{
    usbSerial("some_serial");
    ASSERT_TRUE(QFile::link(kDevice, path("by-id")));
    EXPECT_EQ(adapter(path("by-id")).name, QString("ttyUSB0"));
}

TEST_F(Adapters, AreUnknownWhereTheKernelDescribesNone)
{
    EXPECT_FALSE(adapter().isKnown()) << "no such device in the tree";
    EXPECT_FALSE(adapter("tcp://127.0.0.1:2000").isKnown());
    EXPECT_FALSE(adapter("rfc2217://[::1]:2000").isKnown());
    EXPECT_FALSE(adapter("").isKnown());
    EXPECT_FALSE(adapter("/dev/none-of-this-name").isKnown());
    EXPECT_FALSE(adapter(path("")).isKnown()) << "a folder";
    link("dev/char/1:3", "devices/gone/tty/ttyUSB0");
    EXPECT_FALSE(adapter().isKnown()) << "the device is gone";
    EXPECT_FALSE(adapterOf(kDevice, path("no-sysfs")).isKnown());
}

// As the consoles of the machine.
TEST_F(Adapters, AreUnknownBehindATerminalWithoutHardware)
{
    folder("devices/virtual/tty/tty1");
    link("dev/char/1:3", "devices/virtual/tty/tty1");
    EXPECT_FALSE(adapter().isKnown());
}

TEST_F(Adapters, AreUnknownBehindARealPseudoTerminal)
{
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    EXPECT_FALSE(adapterOf(QString::fromLocal8Bit(ptsname(master))).isKnown());
    ::close(master);
}

// Whoever makes an adapter chooses its texts.
TEST_F(Adapters, KeepAHostileTextWithinBoundsAndAsItIs)
{
    usbSerial("some_serial");
    file(kUsb + QStringLiteral("/manufacturer"), "a\x1b[2Jb\n\n");
    file(kUsb + QStringLiteral("/product"), QByteArray(100000, 'x'));
    file(kUsb + QStringLiteral("/serial"), "\xff\xfe\n");
    const Adapter found = adapter();
    EXPECT_EQ(found.manufacturer, QString("a\x1b[2Jb\n"));
    EXPECT_EQ(found.product, QString(512, 'x'));
    EXPECT_EQ(found.serial, QString(2, QChar(0xFFFD)));
}

TEST_F(Adapters, HaveNoTimerWhereTheFileHoldsNoNumber)
{
    const QString port = usbSerial("some_serial");
    for (const char* text : {"", "\n", "16 ms\n", "-1\n", "99999999999\n", "0x10\n"}) {
        file(port + "/latency_timer", text);
        EXPECT_FALSE(adapter().latencyTimerMs) << text;
    }
    file(port + "/latency_timer", "0\n");
    EXPECT_EQ(adapter().latencyTimerMs, 0);
    ASSERT_TRUE(QFile::remove(path(port + "/latency_timer")));
    folder(port + "/latency_timer");
    EXPECT_FALSE(adapter().latencyTimerMs) << "cannot be read";
}

TEST_F(Adapters, EndTheSearchAtATreeThatLeadsInACircle)
{
    folder("devices/a/tty/ttyUSB0");
    link("dev/char/1:3", "devices/a/tty/ttyUSB0");
    ASSERT_TRUE(QFile::link("device", path("devices/a/tty/ttyUSB0/device")));
    EXPECT_EQ(adapter().driver + adapter().usbId, QString());
}
