#include "LatencyFlag.h"

#include <cerrno>
#include <linux/serial.h>
#include <sys/ioctl.h>

namespace micro850::host {

namespace {

class KernelControl : public SerialControl
{
public:
    int get(int descriptor, serial_struct& settings) const override
    {
        return ::ioctl(descriptor, TIOCGSERIAL, &settings) == 0 ? 0 : errno;
    }
    int set(int descriptor, const serial_struct& settings) const override
    {
        return ::ioctl(descriptor, TIOCSSERIAL, &settings) == 0 ? 0 : errno;
    }
};

const unsigned int kLowLatency = ASYNC_LOW_LATENCY;

bool hasFlag(const serial_struct& settings)
{
    return (static_cast<unsigned int>(settings.flags) & kLowLatency) != 0;
}

// Everything else stays as it was read: a user who is not root may change nothing else, and another
// program may have changed it.
serial_struct withFlag(serial_struct settings, bool on)
{
    const auto flags = static_cast<unsigned int>(settings.flags);
    settings.flags = static_cast<int>(on ? flags | kLowLatency : flags & ~kLowLatency);
    return settings;
}

LowLatency meaningOf(int error)
{
    switch (error) {
    case EPERM:
    case EACCES:
        return LowLatency::NotAllowed;
    case ENOTTY:
    case EINVAL:
    case ENOSYS:
    case EOPNOTSUPP:
        return LowLatency::NotOffered;
    default:
        return LowLatency::Failed;
    }
}

} // namespace

const SerialControl& systemSerialControl()
{
    static const KernelControl control;
    return control;
}

LatencyFlag::LatencyFlag(const SerialControl& control) : m_control(control) {}

LowLatency LatencyFlag::set(int descriptor)
{
    m_isOurs = false;
    serial_struct before = {};
    if (const int error = m_control.get(descriptor, before))
        return m_state = meaningOf(error);
    if (hasFlag(before))
        return m_state = LowLatency::WasSet;
    const int refusal = m_control.set(descriptor, withFlag(before, true));
    // Some drivers accept every setting and ignore this one. Others note it before they tell the
    // adapter, and report when that fails.
    serial_struct after = {};
    const int silence = m_control.get(descriptor, after);
    m_isOurs = silence == 0 ? hasFlag(after) : refusal == 0;
    if (refusal != 0)
        return m_state = meaningOf(refusal);
    if (silence != 0)
        return m_state = meaningOf(silence);
    return m_state = m_isOurs ? LowLatency::Set : LowLatency::NotOffered;
}

void LatencyFlag::putBack(int descriptor)
{
    m_state = LowLatency::NotAsked;
    if (!m_isOurs)
        return;
    m_isOurs = false;
    serial_struct now = {};
    // A device that is gone has nothing to put back; one whose flag is clear was changed by others.
    if (m_control.get(descriptor, now) == 0 && hasFlag(now))
        m_control.set(descriptor, withFlag(now, false));
}

} // namespace micro850::host
