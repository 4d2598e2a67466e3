#include <QtCore/QtGlobal>

namespace {

/// The Qt that the library is built for, as a note in its file. A host compares it with its own
/// before it loads the library: strings and lists of another Qt have another layout.
struct QtNote
{
    quint32 ownerSize;
    quint32 contentSize;
    quint32 type;
    char owner[12]; // filled up to a multiple of 4
    quint32 qtMajor;
};
__attribute__((used, aligned(4), section(".note.micro850")))
const QtNote qtNote = {9, 4, 1, "micro850", QT_VERSION >> 16};

} // namespace
