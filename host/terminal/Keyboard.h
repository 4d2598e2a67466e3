#ifndef MICRO850_HOST_KEYBOARD_H
#define MICRO850_HOST_KEYBOARD_H

#include <QtCore/QByteArray>
#include <QtCore/QList>

#include <memory>

struct termios;

namespace micro850::host {

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
        Other
    };
    Code code;
    QChar character; ///< of Code::Character
};

/// The keys in the bytes that a terminal sent. When an escape sequence is cut in two, each part is
/// read as keys of its own: terminals send whole sequences.
QList<Key> keysOf(const QByteArray& bytes);

/// Reads keys as they are pressed, when the descriptor is a terminal and while this object lives.
/// Ctrl-C remains a signal.
class Keyboard
{
public:
    explicit Keyboard(int descriptor);
    ~Keyboard();
    Keyboard(const Keyboard&) = delete;
    Keyboard& operator=(const Keyboard&) = delete;

    /// The keys pressed since the last call; does not wait.
    QList<Key> pressed();

private:
    int m_descriptor;
    std::unique_ptr<termios> m_before; ///< null where there is no terminal
};

} // namespace micro850::host

#endif
