#include "broker.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace {

const std::chrono::seconds kPatience(20);

sockaddr_in loopBack(int port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

std::string brokerProgram()
{
    for (const char* path : {"/usr/sbin/mosquitto", "/usr/local/sbin/mosquitto"}) {
        if (::access(path, X_OK) == 0)
            return path;
    }
    throw std::runtime_error("mosquitto is not installed; scripts/setup installs it");
}

} // namespace

TestBroker::TestBroker(Settings settings) : m_settings(std::move(settings))
{
    std::string folder = (std::filesystem::temp_directory_path() / "broker-XXXXXX").string();
    if (::mkdtemp(folder.data()) == nullptr)
        throw std::runtime_error("no temporary folder for a broker");
    m_folder = folder;
    if (m_settings.startsAtOnce)
        start();
}

TestBroker::~TestBroker()
{
    kill();
    std::error_code ignored;
    std::filesystem::remove_all(m_folder, ignored);
}

// Nothing is dropped for a subscriber that is slow.
void TestBroker::writeConfiguration() const
{
    std::string more = m_settings.more;
    for (size_t at = 0; (at = more.find("FOLDER", at)) != std::string::npos; at += m_folder.size())
        more.replace(at, 6, m_folder);
    std::ofstream file(m_folder + "/mosquitto.conf");
    file << "listener " << port() << " 127.0.0.1\n"
         << "user root\nmax_queued_messages 0\nlog_dest stderr\nlog_type all\n";
    if (m_settings.isPersistent)
        file << "persistence true\npersistence_location " << m_folder << "/\nautosave_interval 1\n";
    file << more << "\n";
}

void TestBroker::start()
{
    if (m_process > 0)
        return;
    writeConfiguration();
    const std::string program = brokerProgram();
    const std::string configuration = m_folder + "/mosquitto.conf";
    const std::string log = m_folder + "/log";
    const pid_t parent = ::getpid();
    m_process = ::fork();
    if (m_process == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent)
            ::_exit(1);
        const int file = ::open(log.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
        ::dup2(file, 1);
        ::dup2(file, 2);
        ::execl(program.c_str(), "mosquitto", "-c", configuration.c_str(), nullptr);
        ::_exit(127);
    }
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (!isListening()) {
        int status = 0;
        if (::waitpid(m_process, &status, WNOHANG) == m_process) {
            m_process = -1;
            throw std::runtime_error("mosquitto ended: " + this->log());
        }
        if (std::chrono::steady_clock::now() > end)
            throw std::runtime_error("mosquitto does not listen: " + this->log());
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

bool TestBroker::isListening() const
{
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopBack(port());
    const bool done =
        ::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::close(socket);
    return done;
}

void TestBroker::kill()
{
    end(SIGKILL);
}

void TestBroker::stop()
{
    end(SIGTERM);
}

void TestBroker::end(int signal)
{
    if (m_process <= 0)
        return;
    ::kill(m_process, signal);
    ::kill(m_process, SIGCONT);
    ::waitpid(m_process, nullptr, 0);
    m_process = -1;
}

void TestBroker::freeze()
{
    if (m_process > 0)
        ::kill(m_process, SIGSTOP);
}

void TestBroker::thaw()
{
    if (m_process > 0)
        ::kill(m_process, SIGCONT);
}

std::string TestBroker::log() const
{
    std::ifstream file(m_folder + "/log");
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}
