#ifndef MICRO850_TESTS_KEYS_H
#define MICRO850_TESTS_KEYS_H

#include "Key.h"

#include <QtCore/QString>

/// Presses keys of a view: characters, and names in angle brackets, such as "/sp<Enter>".
template<typename View> void pressKeys(View& view, const QString& keys)
{
    using Code = micro850::host::Key::Code;
    const std::pair<const char*, Code> names[] = {
        {"Up", Code::Up},           {"Down", Code::Down},           {"PageUp", Code::PageUp},
        {"End", Code::End},         {"Home", Code::Home},           {"PageDown", Code::PageDown},
        {"Enter", Code::Enter},     {"Escape", Code::Escape},       {"Backspace", Code::Backspace},
        {"WheelUp", Code::WheelUp}, {"WheelDown", Code::WheelDown}, {"Other", Code::Other}};
    for (int at = 0; at < keys.size(); ++at) {
        const int end = keys.indexOf('>', at);
        if (keys.at(at) != '<' || end < 0) {
            view.handle({Code::Character, keys.at(at)});
            continue;
        }
        for (const auto& name : names) {
            if (keys.mid(at + 1, end - at - 1) == QLatin1String(name.first))
                view.handle({name.second, QChar()});
        }
        at = end;
    }
}

#endif
