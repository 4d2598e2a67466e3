#include "QtNote.h"

#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>

#include <gtest/gtest.h>

namespace {

int majorOfBytes(const QByteArray& bytes)
{
    const QTemporaryDir folder;
    QFile file(folder.filePath(QStringLiteral("library")));
    EXPECT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(bytes);
    file.close();
    return micro850::host::qtMajorOf(file.fileName());
}

QByteArray library()
{
    QFile file(QStringLiteral(MICRO850_LIBRARY));
    EXPECT_TRUE(file.open(QIODevice::ReadOnly));
    return file.readAll();
}

} // namespace

TEST(QtNote, NamesTheQtOfTheDriver)
{
    EXPECT_EQ(micro850::host::qtMajorOf(QStringLiteral(MICRO850_LIBRARY)), 5);
}

TEST(QtNote, IsMissingInOtherLibrariesAndFiles)
{
    EXPECT_EQ(micro850::host::qtMajorOf(QStringLiteral(MICRO850_OTHER_LIBRARY)), 0);
    EXPECT_EQ(micro850::host::qtMajorOf(QStringLiteral(MICRO850_SOURCE_DIR "/LICENSE")), 0);
    EXPECT_EQ(micro850::host::qtMajorOf(QStringLiteral("/nowhere/libmicro850.so")), 0);
    EXPECT_EQ(majorOfBytes(QByteArray()), 0);
}

TEST(QtNote, IsReadOrMissingInALibraryThatIsCutOffAnywhere)
{
    const QByteArray whole = library();
    int last = 0;
    for (int size = 0; size < 2000; size += 7) {
        const int major = majorOfBytes(whole.left(size));
        EXPECT_GE(major, last) << size; // 0 up to the note's end, 5 from there
        EXPECT_TRUE(major == 0 || major == 5) << size;
        last = major;
    }
    EXPECT_EQ(last, 5);
}

TEST(QtNote, IsMissingWhereSizesAreBeyondTheFile)
{
    const QByteArray whole = library();
    const int owner = whole.indexOf(QByteArray("micro850\0\0\0\0\x05", 13));
    ASSERT_GT(owner, 12);
    for (int field = owner - 12; field < owner - 4; field += 4) {
        QByteArray changed = whole;
        changed.replace(field, 4, QByteArray(4, '\xFF'));
        EXPECT_EQ(majorOfBytes(changed), 0) << field;
    }
}
