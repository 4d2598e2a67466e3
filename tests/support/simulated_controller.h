#ifndef MICRO850_TESTS_SIMULATED_CONTROLLER_H
#define MICRO850_TESTS_SIMULATED_CONTROLLER_H

#include "Controller.h"
#include "byte_arrays.h"

#include <chrono>

/// A simulated controller that answers a frame by a function call: no line and no thread. Its time
/// is virtual, so that nothing in it expires by itself.
class SimulatedController
{
public:
    SimulatedController() : m_controller(m_clock, micro850::sim::TagTable(), executingRepeats())
    {
        // Within one second the driver opens the same connection again.
        m_controller.server().setReplacesConnections(true);
    }

    /// Adds a tag of one element of an elementary type, all bytes 00.
    void define(const QByteArray& name, const char* type)
    {
        micro850::sim::Tag tag;
        tag.name = name.toStdString();
        tag.type = &micro850::cipTypeNamed(type);
        tag.elements.assign(1, micro850::Bytes(static_cast<std::size_t>(tag.type->size)));
        tag.initial = tag.elements;
        m_controller.tags().put(tag);
    }

    /// The bytes of the tag's element, in the order of the wire.
    QByteArray value(const QByteArray& name)
    {
        const micro850::sim::Tag* tag = m_controller.tags().find(name.toStdString());
        return tag ? toByteArray(tag->elements.front()) : QByteArray();
    }

    /// Returns what the controller sends for a frame: its acknowledgement and the reply.
    QByteArray exchange(const QByteArray& frame)
    {
        m_controller.receive(toBytes(frame));
        return toByteArray(m_controller.transmit());
    }

    void advance(std::chrono::milliseconds time) { m_clock.advance(time); }

    std::size_t openConnections() { return m_controller.server().openConnections(); }

private:
    // The controller executes a repeated request again instead of only acknowledging it. A test can
    // then lose replies without waiting for the controller's time-outs.
    static micro850::sim::LinkOptions executingRepeats()
    {
        micro850::sim::LinkOptions options;
        options.duplicateDetection = false;
        return options;
    }

    micro850::VirtualClock m_clock;
    micro850::sim::Controller m_controller;
};

#endif
