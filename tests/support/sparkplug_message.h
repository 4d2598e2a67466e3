#ifndef MICRO850_TESTS_SPARKPLUG_MESSAGE_H
#define MICRO850_TESTS_SPARKPLUG_MESSAGE_H

#include "sparkplug_witness.h"

/// A message that was published, decoded.
struct Seen
{
    std::string topic;
    nlohmann::json payload;
    int qos = 0;
    bool isRetained = false;

    /// Its type: NBIRTH, ...
    std::string type() const
    {
        const std::size_t from = topic.find('/', topic.find('/') + 1) + 1;
        return topic.substr(from, topic.find('/', from) - from);
    }
    std::size_t size() const { return payload.value("metrics", nlohmann::json::array()).size(); }
    /// The metric of a name; null without it.
    nlohmann::json metric(const std::string& name) const
    {
        for (const nlohmann::json& metric : payload.value("metrics", nlohmann::json::array())) {
            if (metric.value("name", "") == name)
                return metric;
        }
        return nlohmann::json();
    }
    nlohmann::json only() const
    {
        return size() == 1 ? payload.at("metrics").at(0) : nlohmann::json("not one metric");
    }
    int seq() const { return std::stoi(payload.value("seq", "-1")); }
};

/// "Quality" and other properties of a metric.
inline nlohmann::json property(const nlohmann::json& metric, const std::string& key)
{
    const nlohmann::json set = metric.value("properties", nlohmann::json::object());
    const nlohmann::json keys = set.value("keys", nlohmann::json::array());
    for (std::size_t i = 0; i < keys.size(); ++i) {
        if (keys.at(i) == key)
            return set.at("values").at(i);
    }
    return nlohmann::json();
}

#endif
