#include "scripted_gateway.h"

#include <array>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

ScriptedGateway::ScriptedGateway() : m_listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path().toStdString().copy(address.sun_path, sizeof(address.sun_path) - 1);
    if (::bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(m_listener, 4) != 0 || ::pipe(m_stop) != 0)
        std::abort();
    m_thread = std::thread([this] { serve(); });
}

ScriptedGateway::~ScriptedGateway()
{
    ::close(m_stop[1]);
    hangUp();
    m_thread.join();
    ::close(m_stop[0]);
    ::close(m_listener);
}

void ScriptedGateway::on(const std::string& request, Answer answer)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_answers[request] = std::move(answer);
}

std::string ScriptedGateway::reply(const Json& request, Json keys)
{
    keys["id"] = request["id"];
    keys["reply"] = request["request"];
    return keys.dump() + '\n';
}

std::string ScriptedGateway::error(const Json& request, const std::string& code,
                                   const std::string& text, Json keys)
{
    keys["code"] = code;
    keys["text"] = text;
    return Json({{"id", request["id"]}, {"error", keys}}).dump() + '\n';
}

void ScriptedGateway::send(const std::string& bytes)
{
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t count =
            ::send(m_client, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0)
            return;
        sent += static_cast<std::size_t>(count);
    }
}

void ScriptedGateway::hangUp()
{
    const int client = m_client;
    if (client >= 0)
        ::shutdown(client, SHUT_RDWR);
}

std::vector<ScriptedGateway::Json> ScriptedGateway::requests(const std::string& name) const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<Json> found;
    for (const Json& request : m_requests) {
        if (request["request"] == name)
            found.push_back(request);
    }
    return found;
}

void ScriptedGateway::serve()
{
    for (;;) {
        std::array<pollfd, 2> waits = {pollfd{m_listener, POLLIN, 0}, pollfd{m_stop[0], 0, 0}};
        ::poll(waits.data(), waits.size(), -1);
        if (waits[1].revents != 0)
            return;
        m_client = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        send(greeting);
        while (serveClient()) {
        }
        ::close(m_client.exchange(-1));
    }
}

// One line of the client; false when the connection is over.
bool ScriptedGateway::serveClient()
{
    std::string line;
    char byte = 0;
    while (byte != '\n') {
        std::array<pollfd, 2> waits = {pollfd{m_client, POLLIN, 0}, pollfd{m_stop[0], 0, 0}};
        ::poll(waits.data(), waits.size(), -1);
        if (waits[1].revents != 0 || ::recv(m_client, &byte, 1, 0) != 1)
            return false;
        line += byte;
    }
    return answer(line);
}

bool ScriptedGateway::answer(const std::string& line)
{
    const Json request = Json::parse(line);
    Answer answer;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_requests.push_back(request);
        const auto found = m_answers.find(request["request"]);
        if (found != m_answers.end())
            answer = found->second;
    }
    std::string bytes = answer ? answer(request) : reply(request, Json::object());
    const bool hangsUp = !bytes.empty() && bytes.back() == kHangUp;
    if (hangsUp)
        bytes.pop_back();
    send(bytes);
    return !hangsUp;
}
