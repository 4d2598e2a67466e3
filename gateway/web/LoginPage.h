#ifndef MICRO850_GATEWAY_WEB_LOGINPAGE_H
#define MICRO850_GATEWAY_WEB_LOGINPAGE_H

#include "HttpMessage.h"

namespace micro850::gateway {

/// What the login page tells besides the form.
enum class LoginNotice { None, WrongToken, Wait, TooOld };

struct LoginPage
{
    LoginNotice notice = LoginNotice::None;
    int waitSeconds = 0;     ///< of LoginNotice::Wait
    QByteArray synchronizer; ///< for the form
    QByteArray view;         ///< where to go afterwards, as viewOf() made it
    QByteArray languages;    ///< Accept-Language of the request

    /// 200 without a notice, otherwise 401, 429 or 403. English, or German for those who rather
    /// read it. Works without a script.
    HttpResponse response() const;
};

/// The view of the page that a link names, "#/trend?v=press%2FLevel"; empty for a text that is
/// none. It is safe in markup and in a header.
QByteArray viewOf(const QString& text);

/// Whether a reader rather reads German than English, by Accept-Language.
bool prefersGerman(const QByteArray& languages);

} // namespace micro850::gateway

#endif
