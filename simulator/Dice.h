#ifndef MICRO850_SIMULATOR_DICE_H
#define MICRO850_SIMULATOR_DICE_H

#include <cstdint>
#include <random>

namespace micro850::sim {

/// Random numbers: the same seed gives the same numbers on every machine.
class Dice
{
public:
    explicit Dice(std::uint64_t seed) : m_numbers(seed) {}

    /// True with probability `rate`, 0 to 1.
    bool hits(double rate) { return static_cast<double>(m_numbers() >> 11) * 0x1p-53 < rate; }
    /// A number from 0 to `end` - 1; 0 when `end` is 0.
    std::uint64_t below(std::uint64_t end) { return end == 0 ? 0 : m_numbers() % end; }

private:
    std::mt19937_64 m_numbers;
};

} // namespace micro850::sim

#endif
