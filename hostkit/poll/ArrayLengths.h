#ifndef MICRO850_HOST_ARRAYLENGTHS_H
#define MICRO850_HOST_ARRAYLENGTHS_H

#include "TagAccess.h"

#include <QtCore/QHash>

#include <functional>

namespace micro850::host {

/// How many elements tags have. A controller does not tell it: single elements are read, at twice
/// the distance until one is refused, then at half of it. What was found is remembered.
class ArrayLengths
{
public:
    /// At least 1; it is 1 for a string, of which only element 0 can be reached. Throws as
    /// TagAccess::typeOf() does. `beforeRead` is called before each read, and may throw.
    int lengthOf(TagAccess& access, const TagKey& tag,
                 const std::function<void()>& beforeRead = nullptr);
    /// The program of the controller may have changed: the length is looked for again.
    void forget(const TagKey& tag) { m_lengths.remove(tag); }

private:
    QHash<TagKey, int> m_lengths;
};

} // namespace micro850::host

#endif
