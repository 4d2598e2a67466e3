#ifndef MICRO850_TESTS_EVERY_FAULT_H
#define MICRO850_TESTS_EVERY_FAULT_H

#include "FaultScript.h"

#include <string>

/// The rules of a fault script with all kinds of faults on both sides. Together they strike `rate`
/// of the messages.
inline std::string everyFault(double rate)
{
    std::string rules;
    int count = 3; // replies that later ones overtake
    for (const std::string& name : micro850::sim::faultNames())
        count += name == "previous" || name == "cip-error" ? 1 : 2;
    const auto add = [&](const std::string& name, const std::string& side, const char* more) {
        rules += std::string(rules.empty() ? "" : ", ") + R"({"fault": ")" + name +
                 R"(", "on": ")" + side + R"(", "rate": )" + std::to_string(rate / count) + more +
                 "}";
    };
    for (const std::string& name : micro850::sim::faultNames()) {
        const char* more = name == "cip-error" ? R"(, "status": 8)"
                           : name == "hang-up" ? R"(, "seconds": 2)"
                           : name == "delay"   ? R"(, "seconds": 0.6)"
                           : name == "split"   ? R"(, "seconds": 0.002)"
                                               : "";
        if (name != "cip-error")
            add(name, "replies", more);
        if (name != "previous")
            add(name, "requests", more);
    }
    for (const char* later : {"1", "2", "5"})
        add("delay", "replies", (std::string(", \"later\": ") + later).c_str());
    return rules;
}

#endif
