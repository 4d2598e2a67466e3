#ifndef MICRO850_TESTS_SCRIPTED_GATEWAY_H
#define MICRO850_TESTS_SCRIPTED_GATEWAY_H

#include <QtCore/QString>
#include <QtCore/QTemporaryDir>

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

/// A gateway that says what a test tells it, on a thread of its own and at a Unix socket of its
/// own. It shares no code with the protocol of the host kit.
class ScriptedGateway
{
public:
    using Json = nlohmann::json;
    /// Bytes that answer a request, also none or garbage.
    using Answer = std::function<std::string(const Json& request)>;

    ScriptedGateway();
    ~ScriptedGateway();
    ScriptedGateway(const ScriptedGateway&) = delete;
    ScriptedGateway& operator=(const ScriptedGateway&) = delete;

    QString path() const { return m_dir.filePath(QStringLiteral("g.sock")); }
    /// What it sends to a client that connects. Set it before one does.
    std::string greeting =
        "{\"protocol\": \"micro850-gateway\", \"version\": 1, \"program\": \"test\"}\n";
    /// Answers all requests with this name. After an answer that ends with kHangUp it closes the
    /// connection.
    void on(const std::string& request, Answer answer);
    /// A reply with these keys besides id and reply.
    static std::string reply(const Json& request, Json keys);
    static std::string error(const Json& request, const std::string& code, const std::string& text,
                             Json keys = Json::object());
    /// Sends bytes to the client that is connected.
    void send(const std::string& bytes);
    /// Closes the connection of the client that is connected.
    void hangUp();
    /// The requests with this name that came so far.
    std::vector<Json> requests(const std::string& name) const;

    static const char kHangUp = '\x04';

private:
    void serve();
    bool serveClient();
    bool answer(const std::string& line);

    QTemporaryDir m_dir;
    int m_listener;
    int m_stop[2] = {-1, -1};
    std::atomic<int> m_client{-1};
    mutable std::mutex m_mutex;
    std::map<std::string, Answer> m_answers;
    std::vector<Json> m_requests;
    std::thread m_thread;
};

#endif
