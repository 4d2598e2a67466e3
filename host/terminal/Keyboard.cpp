#include "Keyboard.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace micro850::host {

namespace {

struct Sequence
{
    const char* bytes;
    Key::Code code;
};

const Sequence kSequences[] = {
    {"\x1b[A", Key::Code::Up},    {"\x1bOA", Key::Code::Up},      {"\x1b[B", Key::Code::Down},
    {"\x1bOB", Key::Code::Down},  {"\x1b[5~", Key::Code::PageUp}, {"\x1b[6~", Key::Code::PageDown},
    {"\x1b[H", Key::Code::Home},  {"\x1bOH", Key::Code::Home},    {"\x1b[1~", Key::Code::Home},
    {"\x1b[F", Key::Code::End},   {"\x1bOF", Key::Code::End},     {"\x1b[4~", Key::Code::End},
    {"\r", Key::Code::Enter},     {"\n", Key::Code::Enter},       {"\x7f", Key::Code::Backspace},
    {"\b", Key::Code::Backspace},
};

// Bytes of the escape sequence at the start of `bytes`: up to its final letter.
int lengthOfSequence(const QByteArray& bytes)
{
    if (bytes.size() < 2 || (bytes.at(1) != '[' && bytes.at(1) != 'O'))
        return 1;
    int length = 2;
    while (length < bytes.size() && bytes.at(length) < '@')
        ++length;
    return std::min(length + 1, bytes.size());
}

// Bytes of the UTF-8 character that begins with this one.
int lengthOfCharacter(char lead)
{
    const auto byte = static_cast<uchar>(lead);
    if (byte < 0xC0 || byte >= 0xF8)
        return 1;
    if (byte < 0xE0)
        return 2;
    return byte < 0xF0 ? 3 : 4;
}

// Terminals send UTF-8. A key holds what Qt has in one unit: nearly every character of a name.
int parseCharacter(const QByteArray& bytes, QList<Key>& keys)
{
    const int length = std::min(lengthOfCharacter(bytes.at(0)), bytes.size());
    const QString text = QString::fromUtf8(bytes.left(length));
    const bool printable =
        text.size() == 1 && text.at(0).isPrint() && text.at(0) != QChar::ReplacementCharacter;
    keys.append(
        {printable ? Key::Code::Character : Key::Code::Other, printable ? text.at(0) : QChar()});
    return length;
}

int parseKey(const QByteArray& bytes, QList<Key>& keys)
{
    for (const Sequence& sequence : kSequences) {
        if (bytes.startsWith(sequence.bytes)) {
            keys.append({sequence.code, QChar()});
            return static_cast<int>(qstrlen(sequence.bytes));
        }
    }
    if (bytes.at(0) == '\x1b') {
        const int length = lengthOfSequence(bytes);
        keys.append({length == 1 ? Key::Code::Escape : Key::Code::Other, QChar()});
        return length;
    }
    return parseCharacter(bytes, keys);
}

} // namespace

QList<Key> keysOf(const QByteArray& bytes)
{
    QList<Key> keys;
    for (int at = 0; at < bytes.size();)
        at += parseKey(bytes.mid(at), keys);
    return keys;
}

Keyboard::Keyboard(int descriptor) : m_descriptor(descriptor)
{
    termios settings = {};
    if (tcgetattr(descriptor, &settings) != 0)
        return;
    m_before = std::make_unique<termios>(settings);
    settings.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    tcsetattr(descriptor, TCSANOW, &settings);
}

Keyboard::~Keyboard()
{
    if (m_before)
        tcsetattr(m_descriptor, TCSANOW, m_before.get());
}

QList<Key> Keyboard::pressed()
{
    pollfd wait = {m_descriptor, POLLIN, 0};
    if (!m_before || ::poll(&wait, 1, 0) != 1 || (wait.revents & POLLIN) == 0)
        return {};
    QByteArray bytes(256, '\0');
    const ssize_t got = ::read(m_descriptor, bytes.data(), static_cast<std::size_t>(bytes.size()));
    return keysOf(bytes.left(static_cast<int>(std::max<ssize_t>(0, got))));
}

} // namespace micro850::host
