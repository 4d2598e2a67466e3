#ifndef MICRO850_SIMULATOR_NETWORKPORT_H
#define MICRO850_SIMULATOR_NETWORKPORT_H

#include "ListenAddress.h"
#include "OutputQueue.h"
#include "Port.h"

#include <functional>

namespace micro850::sim {

/// A line that one client at a time reaches by TCP, as behind a device server. A client that comes
/// while another one is served is sent away. While there is no client, the line is open at the
/// other end: what the controller sends is lost.
class NetworkPort : public Port
{
public:
    /// Called with what a user should know.
    using Notes = std::function<void(const std::string&)>;

    /// Listens at this address. Throws UserError.
    NetworkPort(const ListenAddress& address, const Clock& clock, Notes notes);
    ~NetworkPort() override;

    /// The address, with the port that was found for port 0.
    const ListenAddress& address() const { return m_address; }
    std::string path() const override { return m_address.text(); }
    std::vector<pollfd> waits() const override;
    Bytes read(bool& gone) override;
    void write(const Bytes& bytes) override;

private:
    Bytes receive();
    bool acceptClient();
    void greet(int client, const std::string& peer);
    void dropClient();

    ListenAddress m_address;
    Notes m_notes;
    int m_listener = -1;
    int m_client = -1;       ///< below 0 while nobody is served
    unsigned m_sentAway = 0; ///< clients that came meanwhile
    OutputQueue m_output;
};

} // namespace micro850::sim

#endif
