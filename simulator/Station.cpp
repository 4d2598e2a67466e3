#include "Station.h"

#include "NetworkPort.h"
#include "SerialPort.h"
#include "StandardStreams.h"
#include "UserError.h"
#include "VisibleText.h"

#include <iostream>

namespace micro850::sim {

namespace {

std::string messagesOf(const LinkCounters& counters)
{
    return std::to_string(counters.messages) +
           (counters.messages == 1 ? " message, " : " messages, ") +
           std::to_string(counters.corrupt) + " corrupt, " + std::to_string(counters.duplicates) +
           " repeated, " + std::to_string(counters.undelivered) +
           (counters.undelivered == 1 ? " reply undelivered" : " replies undelivered");
}

} // namespace

TagTable Station::loadTags(const StationSetup& setup)
{
    return setup.tags.empty() ? TagTable() : TagTable::fromFile(setup.tags);
}

Station::Station(StationSetup setup)
    : m_setup(std::move(setup)), m_controller(m_clock, loadTags(m_setup), m_setup.options),
      m_line(m_clock, m_controller, m_setup.faults, m_setup.seed)
{
    m_controller.server().setConnectionLimit(m_setup.connections);
    m_line.setObserver([this](const FaultyLine::Event& event) { report(describe(event)); });
    if (!m_setup.replay.empty()) {
        const Trace trace = readTrace(m_setup.replay);
        if (!trace.remark.empty())
            report(m_setup.replay + ": " + trace.remark);
        m_replay.emplace(trace.records, m_setup.replay);
        m_controller.answerWith([this](const Bytes& message) { return answerFromTrace(message); });
    }
    open();
    if (m_setup.listen && !m_setup.listen->isLoopback())
        report("anybody who reaches " + m_setup.listen->host + " can read and write every value");
}

std::unique_ptr<Port> Station::madePort()
{
    if (m_setup.listen) {
        auto port = std::make_unique<NetworkPort>(
            *m_setup.listen, m_clock, [this](const std::string& note) { report(note); });
        m_setup.listen = port->address(); // the same port again after the line hung up
        return port;
    }
    return m_setup.port.empty() ? SerialPort::pseudoTerminal(m_setup.link, m_clock)
                                : SerialPort::device(m_setup.port, m_setup.baud, m_clock);
}

void Station::open()
{
    m_port = madePort();
    writeStandardOutput(m_setup.name + (m_setup.name.empty() ? "" : ": ") + m_port->path() + "\n");
}

void Station::openAgain()
{
    try {
        open();
        m_waitsForAddress = false;
    } catch (const UserError& error) {
        if (!m_setup.listen)
            throw;
        if (!m_waitsForAddress)
            report(std::string(error.what()) + "; trying again");
        m_waitsForAddress = true;
    }
}

void Station::serve()
{
    if (!m_port && !m_line.isHungUp())
        openAgain();
    if (m_port)
        receive();
    m_line.tick();
    const Bytes out = m_line.transmit();
    if (m_port)
        m_port->write(out);
    if (m_line.isHungUp())
        m_port.reset();
}

void Station::receive()
{
    bool gone = false;
    const Bytes bytes = m_port->read(gone);
    if (gone)
        throw UserError(m_port->path() + ": the device has vanished; plug it in and start again",
                        kExitRefused);
    m_line.receive(bytes);
}

std::optional<Bytes> Station::answerFromTrace(const Bytes& message)
{
    std::optional<Bytes> reply = m_replay->answer(message);
    if (!reply)
        report("a request that is not in " + m_setup.replay + " is acknowledged but not answered");
    return reply;
}

void Station::execute(const Command& command)
{
    if (command.kind == Command::Status) {
        printStatus();
        return;
    }
    if (command.kind == Command::PowerCycle) {
        m_controller.powerCycle(command.retain);
        report(command.retain ? "power cycle, values retained" : "power cycle, initial values");
        return;
    }
    if (m_replay)
        throw UserError("download: a replayed trace has no tags (start with a tag file)");
    const std::string& file = command.file.empty() ? m_setup.tags : command.file;
    m_controller.download(TagTable::fromFile(file));
    m_setup.tags = file;
    report("tags of " + file + " downloaded");
}

// The answer to a command, also where nothing else is printed.
void Station::printStatus()
{
    std::cout << m_setup.name << (m_setup.name.empty() ? "" : ": ")
              << m_controller.server().openConnections();
    if (m_setup.connections)
        std::cout << " of " << *m_setup.connections;
    std::cout << " connections open, " << messagesOf(m_controller.counters()) << std::endl;
}

void Station::summarise() const
{
    report(messagesOf(m_controller.counters()));
    if (m_setup.faults.empty())
        return;
    std::string text = "faults with seed " + std::to_string(m_setup.seed) + ':';
    for (const auto& [kind, count] : m_line.counts())
        text += ' ' + faultNames()[static_cast<std::size_t>(kind)] + ' ' + std::to_string(count);
    report(text + (m_line.counts().empty() ? " none" : ""));
}

void Station::report(const std::string& text) const
{
    if (!m_setup.quiet)
        std::cerr << "micro850-sim: " << m_setup.name << (m_setup.name.empty() ? "" : ": ")
                  << visible(text) << '\n';
}

} // namespace micro850::sim
