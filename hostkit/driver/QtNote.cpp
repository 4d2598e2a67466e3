#include "QtNote.h"

#include <QtCore/QByteArray>
#include <QtCore/QFile>

#include <elf.h>
#include <link.h>

#include <cstring>

namespace micro850::host {

namespace {

// The note's owner with its end, and its type. A note is: size of the owner, size of the content,
// type, owner and content, each part from a multiple of 4.
const QByteArray kOwner("micro850", 9);
const quint32 kQtVersionType = 1;

quint64 padded(quint64 size)
{
    return (size + 3) / 4 * 4;
}

// Reads a value at an offset; false beyond the end of the file.
template<typename Value> bool take(const QByteArray& file, quint64 offset, Value& value)
{
    const auto size = static_cast<quint64>(file.size());
    if (size < sizeof value || offset > size - sizeof value)
        return false;
    std::memcpy(&value, file.constData() + offset, sizeof value);
    return true;
}

int qtMajorIn(const QByteArray& file, const ElfW(Phdr) & segment)
{
    ElfW(Nhdr) note;
    quint64 at = segment.p_offset;
    while (at < segment.p_offset + segment.p_filesz && take(file, at, note)) {
        const quint64 owner = at + sizeof note;
        const quint64 content = owner + padded(note.n_namesz);
        quint32 major = 0;
        if (note.n_type == kQtVersionType && file.mid(int(owner), int(note.n_namesz)) == kOwner &&
            note.n_descsz == sizeof major && take(file, content, major))
            return static_cast<int>(major);
        at = content + padded(note.n_descsz);
    }
    return 0;
}

} // namespace

int qtMajorOf(const QString& file)
{
    QFile library(file);
    if (!library.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray bytes = library.readAll();
    ElfW(Ehdr) header;
    if (!take(bytes, 0, header) || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0)
        return 0;
    for (quint64 i = 0; i < header.e_phnum; ++i) {
        ElfW(Phdr) segment;
        if (!take(bytes, header.e_phoff + i * header.e_phentsize, segment))
            return 0;
        const int major = segment.p_type == PT_NOTE ? qtMajorIn(bytes, segment) : 0;
        if (major != 0)
            return major;
    }
    return 0;
}

} // namespace micro850::host
