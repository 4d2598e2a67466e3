#ifndef MICRO850_INTERNAL_WRAPPING_H
#define MICRO850_INTERNAL_WRAPPING_H

/// Arithmetic on 32-bit integers that wraps around. A host may give any number, and an overflow of
/// a signed integer is undefined.
namespace wrapping {

inline int sum(int a, int b)
{
    return static_cast<int>(static_cast<unsigned int>(a) + static_cast<unsigned int>(b));
}

inline int difference(int a, int b)
{
    return static_cast<int>(static_cast<unsigned int>(a) - static_cast<unsigned int>(b));
}

} // namespace wrapping

#endif
