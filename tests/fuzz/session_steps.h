#ifndef MICRO850_TESTS_FUZZ_SESSION_STEPS_H
#define MICRO850_TESTS_FUZZ_SESSION_STEPS_H

// The format of a session's input, for the harness and for make_corpus.

namespace session {

/// First byte of a step, modulo kSteps.
enum Step {
    kPoll,          // nothing more
    kGoodReply,     // reply kind, type code (2), value block
    kRawReply,      // block, announced length
    kNoReply,       // nothing more
    kNullReply,     // announced length
    kBentReply,     // reply kind, type code, value block, cut, index, new byte
    kSetValue,      // name, area, address text, station, value block, count, kind
    kGetValue,      // name, address text, station, count
    kAddRead,       // request
    kAddWrite,      // request, mode
    kAddOnce,       // request, mode
    kRebuildCyclic, // number of variables, then area, name, address text, count of each
    kPassNames,     // bits of the names, kind
    kEnableStation, // station, enable
    kSettings,      // word, value
    kForgetSettings,
    kSteps
};

/// Host's words of the settings record that kSettings changes.
enum Word { kDefaultStation, kRetryLimit, kMultiStation, kRemoteMode, kLocalLink, kWriteMode };

} // namespace session

#endif
