#include "LineStatus.h"

namespace micro850::host {

namespace {

// As many as one program can have; a gateway sends what it likes.
const std::int64_t kMostStations = 65536;
const std::int64_t kMostCount = std::int64_t(1) << 62;
const std::int64_t kMostMilliseconds = std::int64_t(1) << 50;

// -1 before the first answer.
qint64 millisecondsOf(std::optional<Duration> roundTrip)
{
    return roundTrip ? wholeMilliseconds(*roundTrip) : -1;
}

std::optional<Duration> millisecondsIn(const JsonNode& object, const char* key)
{
    const std::int64_t ms = object.integer(key, -1, kMostMilliseconds, -1);
    return ms < 0 ? std::nullopt : std::make_optional<Duration>(std::chrono::milliseconds(ms));
}

Json jsonOf(const RoundTripHistogram& roundTrips)
{
    const std::chrono::duration<double, std::milli> sum = roundTrips.sum;
    return {{"limitsMs", RoundTripHistogram::kLimitsMs},
            {"counts", roundTrips.counts},
            {"sumMs", sum.count()}};
}

// One with other limits is left out.
RoundTripHistogram histogramOf(const JsonNode& object)
{
    RoundTripHistogram histogram;
    if (object.at("limitsMs").value() != nlohmann::json(RoundTripHistogram::kLimitsMs))
        return histogram;
    const JsonNode::Elements counts = object.at("counts").elements();
    if (counts.size() != histogram.counts.size())
        object.at("counts").fail("has not one number more than limitsMs");
    for (std::size_t i = 0; i < counts.size(); ++i)
        histogram.counts[i] = counts[i].integer(0, kMostCount);
    const std::chrono::duration<double, std::milli> sum(object.number("sumMs", 0));
    histogram.sum = std::chrono::duration_cast<Duration>(sum);
    return histogram;
}

Json summaryOf(const StationView& station)
{
    const Counters& counters = station.counters;
    Json errors = Json::object();
    for (auto error = counters.errors.constBegin(); error != counters.errors.constEnd(); ++error)
        errors[error.key().toStdString()] = error.value();
    Json object = {{"station", station.number},
                   {"state", station.state.toStdString()},
                   {"sent", counters.sent},
                   {"answered", counters.answered},
                   {"timedOut", counters.timedOut},
                   {"corrupt", counters.corrupt},
                   {"late", counters.late},
                   {"retries", counters.retries},
                   {"reconnects", counters.reconnects},
                   {"errors", errors}};
    if (!station.problem.isEmpty())
        object["problem"] = station.problem.toStdString();
    return object;
}

Json jsonOf(const StationView& station, Duration now)
{
    Json object = summaryOf(station);
    if (!station.name.isEmpty())
        object["name"] = station.name.toStdString();
    object["connected"] = station.isConnected;
    object["served"] = station.isServed;
    if (station.lastAnswer)
        object["lastAnswerMs"] = wholeMilliseconds(now - *station.lastAnswer);
    object["refusedByPeer"] = station.counters.refusedByPeer;
    object["bytesSent"] = station.counters.bytesSent;
    object["bytesReceived"] = station.counters.bytesReceived;
    return object;
}

QString textIn(const JsonNode& object, const char* key)
{
    return QString::fromStdString(object.text(key, ""));
}

Counters countersOf(const JsonNode& object)
{
    const auto count = [&object](const char* key) { return object.integer(key, 0, kMostCount, 0); };
    Counters counters;
    counters.sent = count("sent");
    counters.answered = count("answered");
    counters.timedOut = count("timedOut");
    counters.corrupt = count("corrupt");
    counters.late = count("late");
    counters.retries = count("retries");
    counters.refusedByPeer = count("refusedByPeer");
    counters.reconnects = count("reconnects");
    counters.bytesSent = count("bytesSent");
    counters.bytesReceived = count("bytesReceived");
    if (!object.has("errors"))
        return counters;
    const JsonNode errors = object.at("errors");
    if (!errors.value().is_object())
        errors.fail(errors.found() + " is not an object { ... }");
    for (const auto& error : errors.value().items())
        counters.errors.insert(QString::fromStdString(error.key()),
                               errors.at(error.key()).integer(0, kMostCount));
    return counters;
}

StationView stationOf(const JsonNode& object, Duration now)
{
    StationView station;
    station.number = static_cast<int>(object.at("station").integer(0, kMostStations));
    station.name = textIn(object, "name");
    station.state = QString::fromStdString(object.at("state").text());
    station.problem = textIn(object, "problem");
    station.isConnected = object.boolean("connected", false);
    station.isServed = object.boolean("served", true);
    if (const std::optional<Duration> ago = millisecondsIn(object, "lastAnswerMs"))
        station.lastAnswer = now - *ago;
    station.counters = countersOf(object);
    return station;
}

} // namespace

LineStatus statusOf(const Plant& plant)
{
    return {plant.line(), plant.figures(), plant.stationViews()};
}

Json summaryOf(const LineStatus& status)
{
    Json stations = Json::array();
    for (const StationView& station : status.stations)
        stations.push_back(summaryOf(station));
    return {{"port", status.line.device.toStdString()},
            {"transactionsPerSecond", status.figures.transactionsPerSecond},
            {"percentInUse", status.figures.percentInUse},
            {"percentAsked", status.figures.percentAsked},
            {"roundTripMsMedian", millisecondsOf(status.figures.roundTripMedian)},
            {"roundTripMs99", millisecondsOf(status.figures.roundTrip99)},
            {"reopened", status.figures.reopened},
            {"stations", stations}};
}

Json jsonOf(const LineStatus& status, Duration now)
{
    Json object = summaryOf(status);
    object["settings"] = status.line.text.toStdString();
    object["up"] = status.line.isUp;
    if (!status.line.error.isEmpty())
        object["error"] = status.line.error.toStdString();
    if (!status.line.reportedError.isEmpty())
        object["reportedError"] = status.line.reportedError.toStdString();
    object["roundTrips"] = jsonOf(status.figures.roundTrips);
    if (!status.figures.overload.isEmpty())
        object["overload"] = status.figures.overload.toStdString();
    object["stations"] = Json::array();
    for (const StationView& station : status.stations)
        object["stations"].push_back(jsonOf(station, now));
    return object;
}

LineStatus lineStatusOf(const JsonNode& object, Duration now)
{
    LineStatus status;
    status.line.device = textIn(object, "port");
    status.line.text = textIn(object, "settings");
    status.line.isUp = object.boolean("up", false);
    status.line.error = textIn(object, "error");
    status.line.reportedError = textIn(object, "reportedError");
    status.figures.transactionsPerSecond = object.number("transactionsPerSecond", 0);
    status.figures.percentInUse = object.number("percentInUse", 0);
    status.figures.percentAsked = object.number("percentAsked", 0);
    status.figures.overload = textIn(object, "overload");
    status.figures.roundTripMedian = millisecondsIn(object, "roundTripMsMedian");
    status.figures.roundTrip99 = millisecondsIn(object, "roundTripMs99");
    status.figures.reopened = object.integer("reopened", 0, kMostCount, 0);
    if (object.has("roundTrips"))
        status.figures.roundTrips = histogramOf(object.at("roundTrips"));
    if (object.has("stations")) {
        for (const JsonNode& station : object.at("stations").elements())
            status.stations.append(stationOf(station, now));
    }
    return status;
}

} // namespace micro850::host
