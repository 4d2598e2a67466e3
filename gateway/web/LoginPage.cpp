#include "LoginPage.h"

#include <algorithm>

namespace micro850::gateway {

namespace {

const int kLongestView = 4000;

struct Texts
{
    const char* language;
    const char* title;
    const char* intent;
    const char* label;
    const char* button;
    const char* wrong;
    const char* wait;
    const char* old;
};

const Texts kEnglish = {
    "en",
    "Log in",
    "This page needs the token of the gateway. Whoever runs the gateway has it.",
    "Token",
    "Log in",
    "This is not the token.",
    "Too many wrong tokens. Try again in %1 s.",
    "This form is too old, or cookies are switched off. Try again.",
};

const Texts kGerman = {
    "de",
    "Anmelden",
    "Diese Seite braucht das Token des Gateways. Wer das Gateway betreibt, hat es.",
    "Token",
    "Anmelden",
    "Das ist nicht das Token.",
    "Zu viele falsche Tokens. In %1 s wieder m\u00f6glich.",
    "Dieses Formular ist zu alt, oder Cookies sind abgeschaltet. Bitte noch einmal.",
};

const char kMarkup[] = R"(<!DOCTYPE html>
<html lang="%1">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>%2 - micro850</title>
<link rel="icon" href="/page/icon.svg" type="image/svg+xml">
<link rel="stylesheet" href="/page/style.css">
<link rel="stylesheet" href="/page/views.css">
</head>
<body class="login">
<main>
<h1>%2</h1>
<p>%3</p>
%4<form method="post" action="/login">
<label for="token">%5</label>
<input id="token" name="token" type="password" required autofocus autocomplete="current-password" maxlength="200">
<input name="synchronizer" type="hidden" value="%6">
<input name="view" type="hidden" value="%7">
<button type="submit">%8</button>
</form>
</main>
</body>
</html>
)";

int statusOf(LoginNotice notice)
{
    switch (notice) {
    case LoginNotice::WrongToken:
        return 401;
    case LoginNotice::Wait:
        return 429;
    case LoginNotice::TooOld:
        return 403;
    case LoginNotice::None:
        break;
    }
    return 200;
}

QString noticeText(const Texts& texts, LoginNotice notice, int waitSeconds)
{
    switch (notice) {
    case LoginNotice::WrongToken:
        return QString::fromUtf8(texts.wrong);
    case LoginNotice::Wait:
        return QString::fromUtf8(texts.wait).arg(waitSeconds);
    case LoginNotice::TooOld:
        return QString::fromUtf8(texts.old);
    case LoginNotice::None:
        break;
    }
    return {};
}

// What browsers write in a fragment, and none of what markup and headers obey.
bool isViewCharacter(QChar c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           QStringLiteral("-._~!$()*+,;=:@/?%#&").contains(c);
}

// "de;q=0.8" counts 800, "de" 1000; a weight that is none counts nothing.
int weightOf(const QByteArray& entry)
{
    const int kThousand = 1000;
    const int at = entry.indexOf(';');
    if (at < 0)
        return kThousand;
    QByteArray weight = entry.mid(at + 1).trimmed();
    if (!weight.startsWith("q="))
        return 0;
    bool isNumber = false;
    const double value = weight.mid(2).toDouble(&isNumber);
    return isNumber && value >= 0 && value <= 1 ? static_cast<int>(value * kThousand) : 0;
}

} // namespace

bool prefersGerman(const QByteArray& languages)
{
    int german = 0;
    int english = 0;
    for (const QByteArray& each : languages.left(kLongestView).split(',')) {
        const QByteArray entry = each.trimmed().toLower();
        const QByteArray name = entry.split(';').first().trimmed();
        if (name == "de" || name.startsWith("de-"))
            german = std::max(german, weightOf(entry));
        else if (name == "en" || name.startsWith("en-"))
            english = std::max(english, weightOf(entry));
    }
    // Of two with the same weight the first is meant.
    const QByteArray lower = languages.toLower();
    return german > english ||
           (german > 0 && german == english && lower.indexOf("de") < lower.indexOf("en"));
}

QByteArray viewOf(const QString& text)
{
    const bool isView = text.startsWith(QLatin1String("#/")) && text.size() <= kLongestView &&
                        text.lastIndexOf('#') == 0 &&
                        std::all_of(text.begin(), text.end(), isViewCharacter);
    return isView ? text.toLatin1() : QByteArray();
}

HttpResponse LoginPage::response() const
{
    const Texts& texts = prefersGerman(languages) ? kGerman : kEnglish;
    const QString told = noticeText(texts, notice, waitSeconds);
    const QString paragraph =
        told.isEmpty() ? QString()
                       : QStringLiteral("<p class=\"error\" role=\"alert\">%1</p>\n").arg(told);
    QString escaped = QString::fromLatin1(view);
    escaped.replace('&', QLatin1String("&amp;"));
    HttpResponse response;
    response.status = statusOf(notice);
    response.type = "text/html; charset=utf-8";
    // In one go: what is put in may have a % of its own.
    response.body =
        QString::fromUtf8(kMarkup)
            .arg(QString::fromUtf8(texts.language), QString::fromUtf8(texts.title),
                 QString::fromUtf8(texts.intent), paragraph, QString::fromUtf8(texts.label),
                 QString::fromLatin1(synchronizer), escaped, QString::fromUtf8(texts.button))
            .toUtf8();
    response.headers.append(HttpHeader{"Cache-Control", "no-store"});
    if (notice == LoginNotice::Wait)
        response.headers.append(HttpHeader{"Retry-After", QByteArray::number(waitSeconds)});
    return response;
}

} // namespace micro850::gateway
