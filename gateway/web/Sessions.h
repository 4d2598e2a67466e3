#ifndef MICRO850_GATEWAY_WEB_SESSIONS_H
#define MICRO850_GATEWAY_WEB_SESSIONS_H

#include "WallClock.h"

#include <QtCore/QByteArray>
#include <QtCore/QVector>

namespace micro850::gateway {

/// Whether two texts are the same, in a time that does not tell where they differ.
bool areSame(const QByteArray& one, const QByteArray& other);

/// Sessions of browsers. The id of a session has the time of its beginning, random bits, and a seal
/// that only who knows the token can make; so sessions need no memory, survive a restart of the
/// service, and are over when the token is another one.
class Sessions
{
public:
    /// The clock must outlive it.
    Sessions(const QByteArray& token, const WallClock& clock);

    QByteArray begin();
    /// An id of begin(), at most 12 hours old, that was not ended.
    bool isGood(const QByteArray& id) const;
    /// The session is over. It is remembered as long as the service runs.
    void end(const QByteArray& id);
    /// What the pages of a session send along with a change. It does not tell the id.
    QByteArray synchronizer(const QByteArray& id) const;

    /// The same for a form that is filled in before there is a session; at most an hour old.
    QByteArray beginForm() const;
    bool isGoodForm(const QByteArray& id) const;

    static constexpr qint64 kLongestMs = 12LL * 3600 * 1000;
    static constexpr int kMostEnded = 1000;

private:
    struct Ended
    {
        QByteArray id;
        qint64 begun;
    };

    QByteArray make(const char* kind) const;
    /// When it was begun; below 0 for one that is not of this kind, or too old.
    qint64 begunAt(const char* kind, const QByteArray& id, qint64 longest) const;
    QByteArray seal(const char* kind, const QByteArray& text) const;

    QByteArray m_key;
    const WallClock& m_clock;
    QVector<Ended> m_ended;
    qint64 m_allEndedUpTo = -1; ///< when there are too many: all that were begun until then
};

} // namespace micro850::gateway

#endif
