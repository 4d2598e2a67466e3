#ifndef MICRO850_TESTS_MEMORY_CONTROLLER_H
#define MICRO850_TESTS_MEMORY_CONTROLLER_H

#include "Controller.h"

#include <QtCore/QByteArray>

#include <chrono>

/// The simulated controller at the other end of a function call: no line, no thread, and a clock
/// that stands still until it is told to go on, so that nothing in it expires by itself.
class MemoryController
{
public:
    MemoryController() : m_controller(m_clock, micro850::sim::TagTable(), executingRepeats()) {}

    /// A tag of one element of an elementary type, all 00.
    void define(const QByteArray& name, const char* type)
    {
        micro850::sim::Tag tag;
        tag.name = name.toStdString();
        tag.type = &micro850::cipTypeNamed(type);
        tag.elements.assign(1, micro850::Bytes(static_cast<std::size_t>(tag.type->size)));
        tag.initial = tag.elements;
        m_controller.tags().put(tag);
    }

    /// The bytes of the tag's element, in the controller's order.
    QByteArray value(const QByteArray& name)
    {
        const micro850::sim::Tag* tag = m_controller.tags().find(name.toStdString());
        return tag ? bytesOf(tag->elements.front()) : QByteArray();
    }

    /// What the controller sends for a frame: its acknowledgement and the reply.
    QByteArray exchange(const QByteArray& frame)
    {
        m_controller.receive(micro850::Bytes(frame.begin(), frame.end()));
        return bytesOf(m_controller.transmit());
    }

    void advance(std::chrono::milliseconds time) { m_clock.advance(time); }

    std::size_t openConnections() { return m_controller.server().openConnections(); }

private:
    // A repeat of a request whose reply was lost is executed again, not only acknowledged, so that
    // a test can lose replies without waiting for the controller's time-outs.
    static micro850::sim::LinkOptions executingRepeats()
    {
        micro850::sim::LinkOptions options;
        options.duplicateDetection = false;
        return options;
    }

    static QByteArray bytesOf(const micro850::Bytes& bytes)
    {
        return QByteArray(reinterpret_cast<const char*>(bytes.data()),
                          static_cast<int>(bytes.size()));
    }

    micro850::VirtualClock m_clock;
    micro850::sim::Controller m_controller;
};

#endif
