#include "Sessions.h"

#include "TokenFile.h"

#include <QtCore/QMessageAuthenticationCode>

#include <algorithm>

namespace micro850::gateway {

namespace {

const char kSession[] = "session";
const char kForm[] = "form";
const char kSynchronizer[] = "synchronizer";
const int kRandomBytes = 16;
const int kLongestId = 200;
const int kHex = 16;
const qint64 kLongestFormMs = 3600LL * 1000;
// The clock of a machine may be set back a little while a session is on.
const qint64 kAheadMs = 300LL * 1000;

QByteArray textOf(const QByteArray& bytes)
{
    return bytes.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals);
}

} // namespace

bool areSame(const QByteArray& one, const QByteArray& other)
{
    if (one.size() != other.size())
        return false;
    unsigned difference = 0;
    for (int i = 0; i < one.size(); ++i)
        difference |=
            static_cast<unsigned char>(one.at(i)) ^ static_cast<unsigned char>(other.at(i));
    return difference == 0;
}

Sessions::Sessions(const QByteArray& token, const WallClock& clock)
    : m_key(
          QMessageAuthenticationCode::hash("micro850 sessions", token, QCryptographicHash::Sha256)),
      m_clock(clock)
{
}

QByteArray Sessions::seal(const char* kind, const QByteArray& text) const
{
    return textOf(QMessageAuthenticationCode::hash(QByteArray(kind) + ' ' + text, m_key,
                                                   QCryptographicHash::Sha256));
}

QByteArray Sessions::make(const char* kind) const
{
    const QByteArray text =
        QByteArray::number(m_clock.now(), kHex) + '.' + textOf(randomBytes(kRandomBytes));
    return text + '.' + seal(kind, text);
}

qint64 Sessions::begunAt(const char* kind, const QByteArray& id, qint64 longest) const
{
    const int end = id.lastIndexOf('.');
    if (id.size() > kLongestId || end < 0)
        return -1;
    const QByteArray text = id.left(end);
    if (!areSame(id.mid(end + 1), seal(kind, text)))
        return -1;
    bool isNumber = false;
    const qint64 begun = text.left(text.indexOf('.')).toLongLong(&isNumber, kHex);
    const qint64 age = m_clock.now() - begun;
    return isNumber && age >= -kAheadMs && age < longest ? begun : -1;
}

QByteArray Sessions::begin()
{
    return make(kSession);
}

bool Sessions::isGood(const QByteArray& id) const
{
    const qint64 begun = begunAt(kSession, id, kLongestMs);
    return begun > m_allEndedUpTo &&
           std::none_of(m_ended.begin(), m_ended.end(),
                        [&](const Ended& ended) { return areSame(ended.id, id); });
}

void Sessions::end(const QByteArray& id)
{
    if (!isGood(id))
        return;
    const qint64 oldest = m_clock.now() - kLongestMs;
    m_ended.erase(std::remove_if(m_ended.begin(), m_ended.end(),
                                 [oldest](const Ended& ended) { return ended.begun <= oldest; }),
                  m_ended.end());
    if (m_ended.size() >= kMostEnded) {
        const auto first =
            std::min_element(m_ended.begin(), m_ended.end(),
                             [](const Ended& a, const Ended& b) { return a.begun < b.begun; });
        m_allEndedUpTo = std::max(m_allEndedUpTo, first->begun);
        m_ended.erase(first);
    }
    m_ended.append({id, begunAt(kSession, id, kLongestMs)});
}

QByteArray Sessions::synchronizer(const QByteArray& id) const
{
    return seal(kSynchronizer, id);
}

QByteArray Sessions::beginForm() const
{
    return make(kForm);
}

bool Sessions::isGoodForm(const QByteArray& id) const
{
    return begunAt(kForm, id, kLongestFormMs) >= 0;
}

} // namespace micro850::gateway
