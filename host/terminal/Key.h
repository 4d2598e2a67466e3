#ifndef MICRO850_HOST_KEY_H
#define MICRO850_HOST_KEY_H

#include <QtCore/QChar>

namespace micro850::host {

/// A key that was pressed on a terminal, or what its mouse did.
struct Key
{
    enum class Code {
        Character,
        Up,
        Down,
        PageUp,
        PageDown,
        Home,
        End,
        Enter,
        Escape,
        Backspace,
        WheelUp,
        WheelDown,
        Click,
        Other
    };
    Code code;
    QChar character; ///< of Code::Character
    int row = 0;     ///< of Code::Click, from the top of the screen
};

} // namespace micro850::host

#endif
