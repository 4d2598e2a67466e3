#ifndef MICRO850_GATEWAY_SYSTEMNOTICE_H
#define MICRO850_GATEWAY_SYSTEMNOTICE_H

#include <QtCore/QString>

namespace micro850::gateway {

/// Tells the system's service manager how the service does. Without one nothing happens.
class SystemNotice
{
public:
    SystemNotice();

    void ready();
    void reloading();
    void stopping();
    /// One line for people; told when it changed.
    void tellStatus(const QString& status);
    /// Tells that the event loop is alive, as often as the manager asks for; call it more often.
    void pat();

private:
    long long m_patEveryUs = 0; ///< 0: the manager does not watch
    long long m_lastPatUs = 0;
    QString m_status;
};

} // namespace micro850::gateway

#endif
