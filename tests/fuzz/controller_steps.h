#ifndef MICRO850_TESTS_FUZZ_CONTROLLER_STEPS_H
#define MICRO850_TESTS_FUZZ_CONTROLLER_STEPS_H

namespace controller {

/// First byte of a step of the controller's peer, modulo kSteps. A step with a transaction number
/// has a byte "new number": if its lowest bit is set, the number is new.
enum Step {
    kRawBytes,    // block
    kMessage,     // block: framed
    kUnconnected, // block: framed after an unconnected header; new number
    kConnected,   // new number, sequence (2), block: framed after a connected header
    kOpen,        // serial, new number
    kRead,        // name, wide index, index, count, new number
    kWrite,       // name, wide index, index, type, count, new number, block
    kWait,        // milliseconds (2)
    kPowerCycle,  // retain values
    kSteps
};

} // namespace controller

#endif
