#ifndef MICRO850_HOST_TAGKEY_H
#define MICRO850_HOST_TAGKEY_H

#include <QtCore/QHash>
#include <QtCore/QString>

#include <tuple>

namespace micro850::host {

/// A tag of a controller: the number of its station, and its name there. Keys are ordered by
/// station, then by name.
struct TagKey
{
    int station = 1;
    QString name;
};

inline bool operator==(const TagKey& a, const TagKey& b)
{
    return a.station == b.station && a.name == b.name;
}
inline bool operator!=(const TagKey& a, const TagKey& b)
{
    return !(a == b);
}
inline bool operator<(const TagKey& a, const TagKey& b)
{
    return std::tie(a.station, a.name) < std::tie(b.station, b.name);
}
inline uint qHash(const TagKey& key, uint seed = 0)
{
    return ::qHash(key.name, seed) ^ ::qHash(key.station, seed);
}

} // namespace micro850::host

#endif
