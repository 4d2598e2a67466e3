#include "ArrayLengths.h"

#include "TagAddress.h"

#include <algorithm>

namespace micro850::host {

namespace {

bool hasElement(TagAccess& access, const TagKey& tag, int element,
                const std::function<void()>& beforeRead)
{
    if (beforeRead)
        beforeRead();
    try {
        access.requireElements(tag, element, 1);
    } catch (const TagRefused&) {
        return false;
    }
    return true;
}

int searchLength(TagAccess& access, const TagKey& tag, const std::function<void()>& beforeRead)
{
    int there = 0; // every tag has an element 0
    int missing = 1;
    while (missing <= kLargestElement && hasElement(access, tag, missing, beforeRead)) {
        there = missing;
        missing =
            there < kLargestElement ? std::min(2 * there, kLargestElement) : kLargestElement + 1;
    }
    while (missing - there > 1) {
        const int middle = there + (missing - there) / 2;
        (hasElement(access, tag, middle, beforeRead) ? there : missing) = middle;
    }
    return missing;
}

} // namespace

int ArrayLengths::lengthOf(TagAccess& access, const TagKey& tag,
                           const std::function<void()>& beforeRead)
{
    const auto known = m_lengths.constFind(tag);
    if (known != m_lengths.constEnd())
        return *known;
    const bool isString = access.typeOf(tag).kind == CipKind::String;
    const int length = isString ? 1 : searchLength(access, tag, beforeRead);
    m_lengths.insert(tag, length);
    return length;
}

} // namespace micro850::host
