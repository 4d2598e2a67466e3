#include "Mailbox.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QEvent>

#include <utility>

namespace micro850::gateway {

namespace {

QEvent::Type letterType()
{
    static const int type = QEvent::registerEventType();
    return static_cast<QEvent::Type>(type);
}

} // namespace

// The event only wakes the loop: the letters are handed over under a lock of their own.
void Mailbox::post(Letter letter)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_letters.push_back(std::move(letter));
    }
    QCoreApplication::postEvent(this, new QEvent(letterType()));
}

bool Mailbox::event(QEvent* event)
{
    if (event->type() != letterType())
        return QObject::event(event);
    Letter letter;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        letter = std::move(m_letters.front());
        m_letters.pop_front();
    }
    letter();
    return true;
}

} // namespace micro850::gateway
