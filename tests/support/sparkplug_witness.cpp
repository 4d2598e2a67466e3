#include "sparkplug_witness.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::string hexadecimal(const std::string& bytes)
{
    static const char* const digits = "0123456789abcdef";
    std::string text;
    for (const char byte : bytes) {
        text += digits[static_cast<unsigned char>(byte) >> 4];
        text += digits[static_cast<unsigned char>(byte) & 15];
    }
    return text;
}

} // namespace

SparkplugWitness& SparkplugWitness::instance()
{
    static SparkplugWitness witness;
    return witness;
}

SparkplugWitness::SparkplugWitness()
{
    int to[2];
    int from[2];
    if (::pipe(to) != 0 || ::pipe(from) != 0)
        throw std::runtime_error("no pipe for the witness");
    m_process = ::fork();
    if (m_process == 0) {
        ::dup2(to[0], STDIN_FILENO);
        ::dup2(from[1], STDOUT_FILENO);
        for (const int descriptor : {to[0], to[1], from[0], from[1]})
            ::close(descriptor);
        // Debian's, which has the package of the library.
        ::execlp("/usr/bin/python3", "python3", "-B",
                 MICRO850_SOURCE_DIR "/tests/support/sparkplug_witness.py",
                 MICRO850_SPARKPLUG_SCHEMA, nullptr);
        ::_exit(127);
    }
    ::close(to[0]);
    ::close(from[1]);
    m_to = ::fdopen(to[1], "w");
    m_from = ::fdopen(from[0], "r");
    ::signal(SIGPIPE, SIG_IGN); // a witness that did not start is told by its empty answer
}

SparkplugWitness::~SparkplugWitness()
{
    std::fclose(m_to);
    std::fclose(m_from);
    ::waitpid(m_process, nullptr, 0);
}

std::string SparkplugWitness::ask(const std::string& line)
{
    std::fputs((line + "\n").c_str(), m_to);
    std::fflush(m_to);
    std::string answer;
    int c = std::fgetc(m_from);
    for (; c != EOF && c != '\n'; c = std::fgetc(m_from))
        answer += static_cast<char>(c);
    if (c == EOF)
        throw std::runtime_error("the witness does not answer: is python3-protobuf installed?");
    if (answer.rfind("error:", 0) == 0)
        throw std::runtime_error(answer);
    return answer;
}

nlohmann::json SparkplugWitness::decode(const std::string& payload)
{
    const std::string message = ask("decode " + hexadecimal(payload));
    // scripts/sparkplug-witness compares them with what a third library says.
    if (const char* file = std::getenv("MICRO850_SPARKPLUG_MESSAGES"))
        std::ofstream(file, std::ios::app) << hexadecimal(payload) << '\t' << message << '\n';
    return nlohmann::json::parse(message);
}

std::string SparkplugWitness::encode(const nlohmann::json& payload)
{
    const std::string text = ask("encode " + payload.dump());
    std::string bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2)
        bytes += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
    return bytes;
}
