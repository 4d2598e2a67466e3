#ifndef MICRO850_TESTS_FUZZ_EXACT_BYTES_H
#define MICRO850_TESTS_FUZZ_EXACT_BYTES_H

#include <QtCore/QByteArray>

#include <algorithm>
#include <cstddef>
#include <memory>

namespace fuzz {

/// Bytes without a 00 after them, so that a sanitizer sees a read past their end: an ordinary
/// QByteArray has a readable 00 there. A change of `bytes` makes them an ordinary array.
struct ExactBytes
{
    explicit ExactBytes(const QByteArray& content)
        : block(new char[static_cast<std::size_t>(content.size())]),
          bytes(QByteArray::fromRawData(block.get(), content.size()))
    {
        std::copy(content.constBegin(), content.constEnd(), block.get());
    }

    std::unique_ptr<char[]> block;
    QByteArray bytes;
};

} // namespace fuzz

#endif
