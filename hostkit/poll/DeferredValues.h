#ifndef MICRO850_HOST_DEFERREDVALUES_H
#define MICRO850_HOST_DEFERREDVALUES_H

#include "Driver.h"
#include "ValueStore.h"

#include <optional>
#include <utility>

namespace micro850::host {

/// The values of a good reply that the driver has stored.
struct ArrivedValues
{
    TagKey tag;
    const CipType* type;
    int element;       ///< the first one
    ByteSlice inReply; ///< value bytes as they are in the reply
    Duration at;       ///< when the reply came
};

/// Holds the values of the last good reply back until the next request is on its way. To fetch and
/// store them at once would leave the line idle for that time.
class DeferredValues
{
public:
    /// The arguments must live longer than this object.
    DeferredValues(const Driver& driver, ValueStore& values) : m_driver(driver), m_values(values) {}

    /// Holds values back. Those before must have been stored.
    void hold(ArrivedValues arrived) { m_held = std::move(arrived); }
    /// Fetches the values that are held back from the driver, stores them and returns their bytes
    /// in the controller's byte order. Returns no bytes when nothing is held back.
    QByteArray store();

private:
    const Driver& m_driver;
    ValueStore& m_values;
    std::optional<ArrivedValues> m_held;
};

} // namespace micro850::host

#endif
