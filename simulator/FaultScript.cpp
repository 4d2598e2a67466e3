#include "FaultScript.h"

#include "JsonFile.h"
#include "UserError.h"
#include "VisibleText.h"

#include <algorithm>
#include <cctype>
#include <utility>

namespace micro850::sim {

namespace {

constexpr std::int64_t kMostMessages = 1000000000;
constexpr std::int64_t kLongestMessage = 65535;
constexpr double kLongestTime = 3600;

/// The name of a fault, and the keys of its rules in addition to fault, on, rate and message.
using Grammar = std::pair<const char*, std::vector<std::string>>;

// In the order of FaultKind.
const std::vector<Grammar>& grammar()
{
    static const std::vector<Grammar> rules = {
        {"lose", {"byte"}},
        {"flip", {"byte", "bit"}},
        {"double", {"byte"}},
        {"insert", {"byte", "bytes"}},
        {"noise", {"byte", "length"}},
        {"delay", {"seconds", "later"}},
        {"duplicate", {}},
        {"split", {"seconds"}},
        {"withhold", {}},
        {"withhold-ack", {}},
        {"nak", {}},
        {"hang-up", {"seconds"}},
        {"previous", {}},
        {"cip-error", {"status", "extended"}},
    };
    return rules;
}

FaultKind parseKind(const JsonNode& node)
{
    const std::string name = node.text();
    const std::vector<std::string>& names = faultNames();
    const auto found = std::find(names.begin(), names.end(), name);
    if (found != names.end())
        return static_cast<FaultKind>(found - names.begin());
    std::string known;
    for (const std::string& each : names)
        known += (known.empty() ? "" : ", ") + each;
    node.fail(inQuotes(name) + " is not a fault" + didYouMean(name, names) + " (" + known + ')');
}

// cip-error strikes requests only, previous strikes replies only.
Side parseSide(const JsonNode& rule, FaultKind kind)
{
    const std::string usual = kind == FaultKind::CipError ? "requests" : "replies";
    const std::string side = rule.text("on", usual);
    if (side != "requests" && side != "replies")
        rule.at("on").fail(inQuotes(side) + " is not a side of the line (requests or replies)");
    if ((kind == FaultKind::CipError || kind == FaultKind::Previous) && side != usual)
        rule.at("on").fail("this fault strikes " + usual + " only");
    return side == "requests" ? Side::Requests : Side::Replies;
}

void parseTargets(const JsonNode& rule, Fault& fault)
{
    if (rule.has("rate") == rule.has("message"))
        rule.fail(R"(give either "rate" (0 to 1) or "message" (a number or a list of them))");
    if (rule.has("rate")) {
        fault.rate = rule.at("rate").number();
        if (!(fault.rate >= 0 && fault.rate <= 1))
            rule.at("rate").fail("a rate is 0 to 1");
        return;
    }
    const JsonNode points = rule.at("message");
    const auto add = [&fault](const JsonNode& point) {
        fault.messages.push_back(static_cast<unsigned>(point.integer(1, kMostMessages)));
    };
    if (!points.isArray())
        return add(points);
    for (const JsonNode& point : points.elements())
        add(point);
    if (fault.messages.empty())
        points.fail("name at least one message; the first is 1");
}

Bytes parseBytes(const JsonNode& node)
{
    std::string digits;
    for (const char c : node.text()) {
        if (c == ' ')
            continue;
        if (!std::isxdigit(static_cast<unsigned char>(c)))
            node.fail("not bytes in hexadecimal, like \"10 06\"");
        digits += c;
    }
    if (digits.empty() || digits.size() % 2 != 0)
        node.fail("not bytes in hexadecimal, like \"10 06\"");
    Bytes bytes;
    for (std::size_t i = 0; i < digits.size(); i += 2)
        bytes.push_back(static_cast<std::uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return bytes;
}

Duration parseTime(const JsonNode& rule, double absent)
{
    const double seconds = rule.number("seconds", absent);
    if (!(seconds >= 0 && seconds <= kLongestTime))
        rule.at("seconds").fail("a time is 0 to 3600 seconds");
    return fromSeconds(seconds);
}

void parseDetails(const JsonNode& rule, Fault& fault)
{
    fault.byte = static_cast<unsigned>(rule.integer("byte", 1, kLongestMessage, 0));
    fault.bit = static_cast<int>(rule.integer("bit", 0, 7, -1));
    fault.length = static_cast<unsigned>(rule.integer("length", 1, kLongestMessage, 16));
    fault.later = static_cast<unsigned>(rule.integer("later", 1, kMostMessages, 0));
    fault.time = parseTime(rule, fault.kind == FaultKind::Split ? 0.005 : 1.0);
    if (rule.has("bytes"))
        fault.bytes = parseBytes(rule.at("bytes"));
    if (rule.has("seconds") && rule.has("later"))
        rule.fail(R"(a delay is either "seconds" or "later" messages long)");
    if (fault.kind != FaultKind::CipError)
        return;
    fault.failure.status = static_cast<std::uint8_t>(rule.at("status").integer(1, 255));
    fault.failure.extended = static_cast<std::uint16_t>(rule.integer("extended", 0, 65535, 0));
}

Fault parseFault(const JsonNode& rule)
{
    Fault fault;
    fault.kind = parseKind(rule.at("fault"));
    std::vector<std::string> keys = {"fault", "on", "rate", "message"};
    const std::vector<std::string>& own = grammar()[static_cast<std::size_t>(fault.kind)].second;
    keys.insert(keys.end(), own.begin(), own.end());
    rule.expectKeys(keys);
    fault.side = parseSide(rule, fault.kind);
    parseTargets(rule, fault);
    parseDetails(rule, fault);
    return fault;
}

FaultScript parseScript(const JsonNode& root)
{
    root.expectKeys({"faults"});
    FaultScript script;
    for (const JsonNode& rule : root.at("faults").elements())
        script.push_back(parseFault(rule));
    return script;
}

} // namespace

const std::vector<std::string>& faultNames()
{
    static const std::vector<std::string> names = [] {
        std::vector<std::string> all;
        for (const Grammar& rule : grammar())
            all.emplace_back(rule.first);
        return all;
    }();
    return names;
}

FaultScript faultsFromFile(const std::string& path)
{
    return parseScript(JsonNode::fromFile(path));
}

FaultScript faultsFromText(const std::string& text, const std::string& name)
{
    return parseScript(JsonNode::fromText(text, name));
}

} // namespace micro850::sim
