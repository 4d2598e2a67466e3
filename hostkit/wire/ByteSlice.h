#ifndef MICRO850_HOST_BYTESLICE_H
#define MICRO850_HOST_BYTESLICE_H

#include <QtCore/QByteArray>

namespace micro850::host {

/// A run of bytes within others. It shares them, so that they live as long as it does and nothing
/// is copied.
class ByteSlice
{
public:
    ByteSlice() = default;
    /// All of the bytes. Implicit: whole bytes are a slice wherever one is asked for.
    // NOLINTNEXTLINE(google-explicit-constructor)
    ByteSlice(const QByteArray& all) : m_all(all), m_size(all.size()) {}
    /// `size` of the bytes, from the one at `begin` on; both must be within them.
    ByteSlice(const QByteArray& all, int begin, int size) : m_all(all), m_begin(begin), m_size(size)
    {
    }

    int size() const { return m_size; }
    bool isEmpty() const { return m_size == 0; }
    const char* begin() const { return m_all.constData() + m_begin; }
    const char* end() const { return begin() + m_size; }
    /// The byte at this index; 0 outside the slice.
    quint8 at(int index) const
    {
        return index >= 0 && index < m_size ? static_cast<quint8>(begin()[index]) : quint8(0);
    }
    /// At most `size` bytes from this index on, cut to what is there.
    ByteSlice mid(int index, int size) const
    {
        const int from = qBound(0, index, m_size);
        return ByteSlice(m_all, m_begin + from, qBound(0, size, m_size - from));
    }
    /// The bytes from this index on.
    ByteSlice mid(int index) const { return mid(index, m_size); }
    /// The bytes for themselves: copied, unless they are all that the slice shares.
    QByteArray bytes() const { return m_all.mid(m_begin, m_size); }

private:
    QByteArray m_all;
    int m_begin = 0;
    int m_size = 0;
};

inline bool operator==(const ByteSlice& a, const ByteSlice& b)
{
    return a.bytes() == b.bytes();
}

} // namespace micro850::host

#endif
