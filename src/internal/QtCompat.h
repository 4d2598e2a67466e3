#ifndef MICRO850_INTERNAL_QTCOMPAT_H
#define MICRO850_INTERNAL_QTCOMPAT_H

// The few places where Qt 4.8 and Qt 5 differ.

#include <QtCore/QList>
#include <QtCore/QtGlobal>

namespace qtcompat {

template<typename T> void swapItems(QList<T>& list, int i, int j)
{
#if QT_VERSION >= 0x050D00
    list.swapItemsAt(i, j);
#else
    list.swap(i, j);
#endif
}

/// Seeds the calling thread's generator and draws one number. Qt 5.15 deprecates both calls, and
/// what it offers instead gives another sequence.
inline int seededRandom(unsigned int seed)
{
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
#endif
    qsrand(seed);
    return qrand();
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
}

} // namespace qtcompat

#endif
