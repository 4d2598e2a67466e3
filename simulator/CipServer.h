#ifndef MICRO850_SIMULATOR_CIPSERVER_H
#define MICRO850_SIMULATOR_CIPSERVER_H

#include "TagTable.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace micro850::sim {

/// General status codes of CIP replies.
enum class CipStatus : std::uint8_t {
    Success = 0x00,
    ConnectionFailure = 0x01,
    PathSegmentError = 0x04,
    PathDestinationUnknown = 0x05,
    PartialTransfer = 0x06,
    ServiceNotSupported = 0x08,
    AttributeNotSettable = 0x0E,
    NotEnoughData = 0x13,
    TooMuchData = 0x15,
    VendorSpecific = 0xFF
};

/// Extended status words of some of these.
enum class CipExtended : std::uint16_t {
    None = 0,
    ConnectionInUse = 0x0100,
    ConnectionNotFound = 0x0107,
    OutOfConnections = 0x0113,
    BeyondObject = 0x2105,
    TypeMismatch = 0x2107
};

/// An error status that is sent instead of executing a request.
struct CipFailure
{
    std::uint8_t status = 0;
    std::uint16_t extended = 0; ///< 0: none
};

/// The attributes of the Identity object.
struct Identity
{
    std::uint16_t vendor = 0x1234;
    std::uint16_t deviceType = 0x000E;
    std::uint16_t productCode = 850;
    std::uint8_t major = 1;
    std::uint8_t minor = 2;
    std::uint32_t serial = 0x00C0FFEE;
    /// 26 characters make the reply 61 bytes long on the wire.
    std::string name = "Micro850 simulated unit 01";
};

/// The CIP side of the controller: executes the request in the data of a DF1 message and returns
/// the data of the reply.
class CipServer
{
public:
    CipServer(const Clock& clock, TagTable& tags, Identity identity = Identity());

    /// Returns the reply's data, or nothing when the message is not a CIP request.
    std::optional<Bytes> handle(const Bytes& message);
    /// While a failure is set, no request is executed; each is answered with this error.
    void setFailure(std::optional<CipFailure> failure) { m_failure = failure; }
    /// Sets how many connections can be open at a time; none: any number.
    void setConnectionLimit(std::optional<std::size_t> limit) { m_connectionLimit = limit; }
    /// What becomes of an open connection when its originator opens it again: the request is
    /// refused, or it replaces the connection. Refused by default.
    void setReplacesConnections(bool replaces) { m_replacesConnections = replaces; }
    /// Forgets all connections and counts, as a power cycle does.
    void reset();

    /// Sets the identifier of the next connection; for tests.
    void setNextConnectionId(std::uint32_t id) { m_nextConnectionId = id; }
    std::size_t openConnections();
    /// Number of requests answered with each general status.
    const std::map<std::uint8_t, unsigned>& answersByStatus() const { return m_answers; }

private:
    struct Connection
    {
        std::uint32_t originatorId = 0; ///< T->O identifier that the originator chose
        Bytes key;                      ///< connection serial, vendor, originator serial
        Duration timeout{0};
        Duration expires{0};
    };
    struct Request
    {
        std::uint8_t service = 0;
        Bytes path;
        Bytes data;
    };
    struct Reply
    {
        CipStatus status = CipStatus::Success;
        CipExtended extended = CipExtended::None;
        Bytes data;
    };
    struct Target
    {
        Tag* tag = nullptr;
        std::size_t element = 0;
    };

    Bytes handleUnconnected(const Bytes& cip);
    Bytes handleConnected(const Bytes& message);
    static std::optional<Request> parseRequest(const Bytes& cip);
    Bytes encodeReply(std::uint8_t service, const Reply& reply);

    Reply failure() const;
    Reply answerUnconnected(const Request& request);
    Reply answerConnected(const Request& request);
    Reply allAttributes() const;
    Reply forwardOpen(const Request& request);
    Reply forwardClose(const Request& request);
    Reply readTag(const Request& request);
    Reply writeTag(const Request& request);
    /// Finds the tag and element that a path names. Returns the error reply when there is none.
    std::optional<Reply> locate(const Bytes& path, Target& target);
    Connection* findConnection(std::uint16_t lowHalf);
    std::map<std::uint32_t, Connection>::iterator findOpen(const Bytes& key);
    void expireConnections();

    const Clock& m_clock;
    TagTable& m_tags;
    Identity m_identity;
    std::map<std::uint32_t, Connection> m_connections; ///< by O->T identifier
    std::uint32_t m_nextConnectionId = 0x00A15C3A;
    std::optional<std::size_t> m_connectionLimit;
    bool m_replacesConnections = false;
    std::map<std::uint8_t, unsigned> m_answers;
    std::optional<CipFailure> m_failure;
};

} // namespace micro850::sim

#endif
