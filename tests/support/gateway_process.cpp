#include "gateway_process.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <spawn.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace {

using nlohmann::json;

const std::chrono::seconds kPatience(30); // for whatever is waited for

[[noreturn]] void fail(const std::string& what)
{
    std::fprintf(stderr, "%s\n", what.c_str());
    std::exit(1);
}

void setFolder(json& value, const std::string& folder)
{
    if (value.is_structured()) {
        for (json& part : value)
            setFolder(part, folder);
    } else if (value.is_string() && value.get<std::string>().rfind("FOLDER/", 0) == 0) {
        value = folder + value.get<std::string>().substr(6);
    }
}

} // namespace

Usage usageOf(pid_t process)
{
    const std::string folder = "/proc/" + std::to_string(process);
    std::ifstream stat(folder + "/stat");
    const std::string text((std::istreambuf_iterator<char>(stat)),
                           std::istreambuf_iterator<char>());
    // After the name, which may have blanks, the fields from the third on.
    std::istringstream fields(text.substr(std::min(text.size(), text.rfind(')') + 2)));
    const std::vector<std::string> field{std::istream_iterator<std::string>(fields), {}};
    Usage usage;
    if (field.size() > 12)
        usage.seconds = (std::stod(field[11]) + std::stod(field[12])) /
                        static_cast<double>(::sysconf(_SC_CLK_TCK));
    std::ifstream rollup(folder + "/smaps_rollup");
    for (std::string line; std::getline(rollup, line);) {
        std::istringstream words(line);
        std::string name;
        double kilobytes = 0;
        words >> name >> kilobytes;
        if (name == "Rss:")
            usage.resident = kilobytes * 1024;
        else if (name == "Pss:")
            usage.proportional = kilobytes * 1024;
    }
    return usage;
}

GatewayProcess::GatewayProcess(const std::string& program, const Lines& lines, json more)
{
    std::string folder = std::filesystem::temp_directory_path() / "gateway.XXXXXX";
    if (!::mkdtemp(folder.data()))
        fail(folder + ": " + std::strerror(errno));
    m_folder = folder;
    setFolder(more, m_folder);
    json configuration = more;
    configuration["lines"] = json::array();
    configuration["socket"]["path"] = socket();
    for (const auto& [name, project] : lines) {
        write(name + ".json", project);
        configuration["lines"].push_back({{"name", name}, {"project", name + ".json"}});
    }
    write("gateway.json", configuration);
    start(program);
}

GatewayProcess::~GatewayProcess()
{
    ::kill(m_process, SIGTERM);
    ::waitpid(m_process, nullptr, 0);
    std::error_code ignored;
    std::filesystem::remove_all(m_folder, ignored);
}

void GatewayProcess::write(const std::string& name, const json& content) const
{
    std::ofstream(m_folder + "/" + name) << content.dump(1) << '\n';
}

void GatewayProcess::start(const std::string& program)
{
    std::string configuration = m_folder + "/gateway.json";
    std::string name = program;
    std::array<char*, 3> arguments = {name.data(), configuration.data(), nullptr};
    if (::posix_spawn(&m_process, program.c_str(), nullptr, nullptr, arguments.data(), environ) !=
        0)
        fail(program + ": cannot be started");
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (::access(socket().c_str(), F_OK) != 0) {
        if (std::chrono::steady_clock::now() > end || ::waitpid(m_process, nullptr, WNOHANG) != 0)
            fail(program + ": did not start");
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

std::vector<Usage> GatewayProcess::usages() const
{
    const std::string id = std::to_string(m_process);
    std::vector<Usage> all = {usageOf(m_process)};
    std::ifstream workers("/proc/" + id + "/task/" + id + "/children");
    for (pid_t worker = 0; workers >> worker;)
        all.push_back(usageOf(worker));
    return all;
}

GatewayReader::GatewayReader(const std::string& socket)
    : m_socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socket.c_str(), sizeof address.sun_path - 1);
    if (::connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        fail(socket + ": " + std::strerror(errno));
}

GatewayReader::~GatewayReader()
{
    ::close(m_socket);
}

void GatewayReader::send(const std::string& request)
{
    const std::string line = request + '\n';
    if (::send(m_socket, line.data(), line.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(line.size()))
        fail(std::string("a request cannot be sent: ") + std::strerror(errno));
}

bool GatewayReader::receive(const std::function<void(const std::string&)>& handle)
{
    std::array<char, 65536> buffer;
    const ssize_t count = ::recv(m_socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (count == 0)
        return false;
    if (count < 0)
        return errno == EAGAIN || errno == EINTR;
    m_text.append(buffer.data(), static_cast<std::size_t>(count));
    std::size_t begin = 0;
    for (std::size_t end = m_text.find('\n'); end != std::string::npos;
         end = m_text.find('\n', begin)) {
        handle(m_text.substr(begin, end - begin));
        begin = end + 1;
    }
    m_text.erase(0, begin);
    return true;
}
