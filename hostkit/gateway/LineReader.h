#ifndef MICRO850_HOST_LINEREADER_H
#define MICRO850_HOST_LINEREADER_H

#include <QtCore/QByteArray>

#include <optional>

namespace micro850::host {

/// Cuts a stream of bytes into lines. When all lines are taken before more bytes are added, it
/// keeps no more than the longest line and what was added last, whatever comes.
class LineReader
{
public:
    struct Line
    {
        QByteArray text;      ///< without the line feed
        bool tooLong = false; ///< the line is dropped, `text` is empty
    };

    /// `longest` is that of a line, in bytes, with its line feed.
    explicit LineReader(int longest) : m_longest(longest) {}

    void add(const char* bytes, int size);
    /// The next line; none while no line is complete. One that is too long is reported once, as
    /// soon as that is known.
    std::optional<Line> next();
    /// True when a line has begun that is not complete yet.
    bool hasBegun() const { return m_dropping || m_start < m_bytes.size(); }

private:
    int m_longest;
    QByteArray m_bytes;
    int m_start = 0;         ///< of the next line
    int m_searched = 0;      ///< there is no line feed between m_start and here
    bool m_dropping = false; ///< until the next line feed
};

} // namespace micro850::host

#endif
