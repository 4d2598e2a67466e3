#ifndef MICRO850_TESTS_SMALL_DISK_H
#define MICRO850_TESTS_SMALL_DISK_H

#include <QtCore/QString>

/// A file system of one megabyte in a folder of its own, until the object is destroyed. Mounts of
/// this process and of those that it starts are their own from then on.
class SmallDisk
{
public:
    explicit SmallDisk(const QString& folder);
    ~SmallDisk();
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;

    void fill() const;
    void empty() const;

private:
    const QString m_folder;
    bool m_isMounted = false;
};

#endif
