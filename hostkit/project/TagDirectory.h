#ifndef MICRO850_HOST_TAGDIRECTORY_H
#define MICRO850_HOST_TAGDIRECTORY_H

#include "CipType.h"
#include "Clock.h"
#include "TagKey.h"

#include <QtCore/QMap>
#include <QtCore/QString>

#include <algorithm>

namespace micro850::host {

/// What the 8-bit length of a name, and the longest element segment that controllers accept, can
/// hold.
const int kLongestTag = 255;
const int kLargestElement = 65535;

/// True when every character may stand in a tag's name: letters, digits and signs without blanks,
/// and without the brackets of an index.
inline bool isPlain(const QString& tag)
{
    return std::all_of(tag.begin(), tag.end(), [](QChar c) {
        return c.unicode() > 0x20 && c.unicode() < 0x7F && c != '[' && c != ']' && c != '=';
    });
}

/// What the host knows of a tag. The driver's store gives classes only, so that the type comes from
/// the first good reply.
struct Tag
{
    enum class State { Unknown, Asking, Known, Refused };
    State state = State::Unknown;
    quint16 typeCode = 0;
    /// The elementary type of the code, null for any other.
    const CipType* type = nullptr;
    /// Why the controller refused it, or why its values are not shown.
    QString error;
    /// When a refused tag is asked for again.
    Duration retryAt{0};
    /// The area that writes to it carry.
    int area = 0;
    /// False once the controller refused a request that spans several variables: one of them
    /// reaches beyond the tag, so that each is read on its own.
    bool mergeable = true;
};

using TagDirectory = QMap<TagKey, Tag>;

} // namespace micro850::host

#endif
