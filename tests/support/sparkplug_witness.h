#ifndef MICRO850_TESTS_SPARKPLUG_WITNESS_H
#define MICRO850_TESTS_SPARKPLUG_WITNESS_H

#include <nlohmann/json.hpp>
#include <string>
#include <sys/types.h>

/// Decodes and encodes messages of Sparkplug B with Python's protobuf library, which shares neither
/// code nor schema with the gateway. Bytes are Base64 in JSON, 64-bit numbers are texts.
class SparkplugWitness
{
public:
    /// The only one of a test program; it starts when it is first asked for.
    static SparkplugWitness& instance();
    SparkplugWitness(const SparkplugWitness&) = delete;
    SparkplugWitness& operator=(const SparkplugWitness&) = delete;

    /// Throw std::runtime_error for what the library refuses.
    nlohmann::json decode(const std::string& payload);
    std::string encode(const nlohmann::json& payload);

private:
    SparkplugWitness();
    ~SparkplugWitness();
    std::string ask(const std::string& line);

    FILE* m_to = nullptr;
    FILE* m_from = nullptr;
    pid_t m_process = -1;
};

#endif
