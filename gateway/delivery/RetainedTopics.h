#ifndef MICRO850_GATEWAY_DELIVERY_RETAINEDTOPICS_H
#define MICRO850_GATEWAY_DELIVERY_RETAINEDTOPICS_H

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QSet>
#include <QtCore/QString>

namespace micro850::gateway {

/// The topics that a broker may keep a message of ours for. They are kept over restarts, so that a
/// topic is cleared whose variable went while the gateway did not run.
class RetainedTopics
{
public:
    /// What text() gave; another text counts as none.
    explicit RetainedTopics(const QString& kept);

    /// The topics that are in use now. Those that were kept and are not among them are obsolete.
    void setUsed(const QSet<QByteArray>& used);
    /// True when the topic was not known before.
    bool use(const QByteArray& topic);
    bool isKnown(const QByteArray& topic) const { return m_all.contains(topic); }
    bool isUsed(const QByteArray& topic) const { return m_used.contains(topic); }
    void stopUsing(const QByteArray& topic) { m_used.remove(topic); }
    /// Topics whose message is to be removed, sorted.
    QList<QByteArray> obsolete() const;
    /// The broker keeps nothing there any more.
    void remove(const QByteArray& topic);

    /// All, to be kept.
    QString text() const;

private:
    QSet<QByteArray> m_all;
    QSet<QByteArray> m_used;
};

} // namespace micro850::gateway

#endif
