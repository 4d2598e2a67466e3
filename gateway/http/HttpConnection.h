#ifndef MICRO850_GATEWAY_HTTP_HTTPCONNECTION_H
#define MICRO850_GATEWAY_HTTP_HTTPCONNECTION_H

#include "Clock.h"
#include "HttpMessage.h"
#include "HttpSettings.h"

#include <microhttpd.h>

#include <optional>
#include <set>

namespace micro850::gateway {

/// What the connections of a server share.
struct HttpShared
{
    const HttpSettings& settings;
    const Clock& clock;
    const HttpHandler& handler;
    const HttpRefusal& refusal;
    HttpCounters& counters;
    std::function<void()> schedule; ///< lets the library run soon
    std::set<QByteArray> proxies;   ///< canonical
    int bodyBytes = 0;              ///< of bodies that are not complete yet
    int answerBytes = 0;            ///< of answers that are not sent yet
};

/// A connection of a client, one request after the other. The library owns the socket.
class HttpConnection : public std::enable_shared_from_this<HttpConnection>
{
public:
    HttpConnection(HttpShared& shared, int socket, const QByteArray& peer);
    ~HttpConnection();
    HttpConnection(const HttpConnection&) = delete;
    HttpConnection& operator=(const HttpConnection&) = delete;

    const QByteArray& peer() const { return m_peer; }
    bool isOfProxy() const { return m_shared.proxies.count(m_peer) > 0; }

    // What the library calls.
    void setLibrary(MHD_Connection* library) { m_library = library; }
    void begin(const char* target) { m_target = target; }
    MHD_Result handle(const char* method, const char* version, const char* bytes, size_t* size);
    void complete();

    /// The answer of the request in work.
    void answer(HttpResponse response);
    void answerWithFailure();
    /// The peer has closed its side, or the connection is broken.
    void handleGone(bool isBroken);
    bool isGone() const { return m_gone; }
    /// Ends the connection at once, whatever it does.
    void close();
    /// Ends it as soon as the request in work is answered: at once without one.
    void finish();
    /// An answer is on its way.
    bool isAnswering() const { return m_response || m_phase == Phase::Answering; }
    /// Closes it when something did not come in time.
    void checkTimes();

private:
    enum class Phase {
        Waiting,   ///< for a request
        Headers,   ///< some bytes of a request have come
        Body,      ///< the headers have come
        Handling,  ///< the request is in work
        Answering, ///< what is known goes out
        Streaming  ///< what comes goes out
    };
    struct StreamEnd;

    void enter(Phase phase);
    MHD_Result handleHeaders(const char* method, const char* version);
    void takeHeaders();
    void takeAddress();
    int takeTarget(const char* version);
    int mistakeOfBody();
    void takeBody(const char* bytes, int size);
    void forgetBody();
    MHD_Result handleRequest();
    MHD_Result refuse(int status);
    bool takeRoom(int size);
    void giveRoomBack();
    MHD_Result queue();
    MHD_Response* libraryResponse();
    MHD_Response* streamResponse();
    ssize_t readStream(char* bytes, size_t most);
    void suspend();
    void resume();
    void checkHeaders(Duration now);
    void checkReading(Duration now);
    void closeSlow();

    HttpShared& m_shared;
    const int m_socket;
    const QByteArray m_peer;
    MHD_Connection* m_library = nullptr;

    Phase m_phase = Phase::Waiting;
    Duration m_since{0};   ///< of the phase, or of the last progress in it
    quint64 m_bytes = 0;   ///< received, or acknowledged by the peer, until then
    bool m_gone = false;   ///< the peer sends nothing any more
    int m_looksGone = 0;   ///< how often that was seen in this phase
    bool m_closed = false; ///< nothing is done for it any more
    bool m_isLast = false; ///< no request is begun any more
    bool m_suspended = false;
    int m_requests = 0; ///< so far

    QByteArray m_target;
    HttpRequest m_request;
    int m_headers = 0;
    bool m_badHeaders = false;
    bool m_bodyTooLong = false;
    bool m_noRoom = false; ///< for the body, because of those of others
    int m_discarded = 0;
    bool m_isHead = false;
    bool m_mustClose = false;
    std::optional<HttpResponse> m_response;
    int m_answerBytes = 0; ///< of it, until it is sent
    std::shared_ptr<HttpStream> m_stream;
};

} // namespace micro850::gateway

#endif
