#include "Mailbox.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QEvent>

namespace micro850::gateway {

namespace {

QEvent::Type letterType()
{
    static const int type = QEvent::registerEventType();
    return static_cast<QEvent::Type>(type);
}

class LetterEvent : public QEvent
{
public:
    explicit LetterEvent(Mailbox::Letter letter) : QEvent(letterType()), m_letter(std::move(letter))
    {
    }
    void run() const { m_letter(); }

private:
    Mailbox::Letter m_letter;
};

} // namespace

void Mailbox::post(Letter letter)
{
    QCoreApplication::postEvent(this, new LetterEvent(std::move(letter)));
}

bool Mailbox::event(QEvent* event)
{
    if (event->type() != letterType())
        return QObject::event(event);
    static_cast<const LetterEvent*>(event)->run();
    return true;
}

} // namespace micro850::gateway
