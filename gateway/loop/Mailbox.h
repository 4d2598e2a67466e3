#ifndef MICRO850_GATEWAY_LOOP_MAILBOX_H
#define MICRO850_GATEWAY_LOOP_MAILBOX_H

#include <QtCore/QObject>

#include <deque>
#include <functional>
#include <mutex>

namespace micro850::gateway {

/// Runs functions that other threads post on the thread that made it, in the event loop. What is
/// still in it when it is destroyed is not run.
class Mailbox : public QObject
{
public:
    using Letter = std::function<void()>;
    /// From any thread.
    void post(Letter letter);

protected:
    bool event(QEvent* event) override;

private:
    std::mutex m_mutex;
    std::deque<Letter> m_letters;
};

} // namespace micro850::gateway

#endif
