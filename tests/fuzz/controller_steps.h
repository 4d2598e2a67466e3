#ifndef MICRO850_TESTS_FUZZ_CONTROLLER_STEPS_H
#define MICRO850_TESTS_FUZZ_CONTROLLER_STEPS_H

namespace controller {

/// First byte of a step of the controller's peer, modulo kSteps. Where a step carries a transaction
/// number, a byte with its lowest bit set makes it a new one.
enum Step {
    kRawBytes,    // block
    kMessage,     // block: framed
    kUnconnected, // block: framed behind an unconnected header; new number
    kConnected,   // new number, sequence (2), block: framed behind a connected header
    kOpen,        // serial, new number
    kRead,        // name, wide index, index, count, new number
    kWrite,       // name, wide index, index, type, count, new number, block
    kWait,        // milliseconds (2)
    kPowerCycle,  // retain values
    kSteps
};

} // namespace controller

#endif
