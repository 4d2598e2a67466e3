#ifndef MICRO850_HOST_LATENCYFLAG_H
#define MICRO850_HOST_LATENCYFLAG_H

struct serial_struct;

namespace micro850::host {

/// What became of the wish that a serial device delivers its bytes at once.
enum class LowLatency {
    NotAsked,   ///< the line is closed, is no serial device of this machine, or nobody wants it
    Set,        ///< set until the line is closed
    WasSet,     ///< found set; it stays so
    NotAllowed, ///< this user may not set it
    NotOffered, ///< the device's driver has no such flag, as that of a pseudo-terminal
    Failed      ///< the device does not answer
};

/// The system calls with which a program reads and changes the settings of a serial device. Each
/// returns 0 or the error number. Tests stand in for it.
class SerialControl
{
public:
    virtual ~SerialControl() = default;
    virtual int get(int descriptor, serial_struct& settings) const = 0;
    virtual int set(int descriptor, const serial_struct& settings) const = 0;
};

/// The kernel's own.
const SerialControl& systemSerialControl();

/// The flag with which a serial device delivers bytes at once, instead of keeping them until there
/// are more: many USB adapters keep the end of a reply for 16 ms. It belongs to the device, not to
/// the program, so that it is put back when the program no longer uses the device.
class LatencyFlag
{
public:
    /// `control` must live as long.
    explicit LatencyFlag(const SerialControl& control = systemSerialControl());

    /// Sets the flag of an open device, unless it is set already. Never a reason not to use the
    /// device.
    LowLatency set(int descriptor);
    /// Clears the flag if set() has set it. To be called before the device is closed: afterwards
    /// another program may have opened it.
    void putBack(int descriptor);

    LowLatency state() const { return m_state; }

private:
    const SerialControl& m_control;
    LowLatency m_state = LowLatency::NotAsked;
    bool m_isOurs = false;
};

} // namespace micro850::host

#endif
