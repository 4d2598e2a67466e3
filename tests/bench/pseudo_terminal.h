#ifndef MICRO850_BENCH_PSEUDO_TERMINAL_H
#define MICRO850_BENCH_PSEUDO_TERMINAL_H

#include <cstdint>
#include <string>

/// A pseudo-terminal in raw mode. It keeps its other end open, so that clients may come and go.
class PseudoTerminal
{
public:
    /// Ends the program with a message if the system has none.
    PseudoTerminal();
    ~PseudoTerminal();
    PseudoTerminal(const PseudoTerminal&) = delete;
    PseudoTerminal& operator=(const PseudoTerminal&) = delete;

    int descriptor() const { return m_master; }
    /// The device that a client opens.
    const std::string& path() const { return m_path; }

private:
    int m_master;
    int m_held;
    std::string m_path;
};

/// Opens a serial device or pseudo-terminal in raw mode, without blocking. Ends the program with a
/// message if that fails.
int openRaw(const std::string& path);

/// CLOCK_MONOTONIC in nanoseconds.
std::int64_t nanoseconds();

#endif
