#ifndef MICRO850_COMMON_OUTPUTFILE_H
#define MICRO850_COMMON_OUTPUTFILE_H

#include "UserError.h"

#include <string>

namespace micro850 {

/// Throws UserError `NAME: cannot be written: CAUSE` for a value of errno. The exit status is 1 for
/// a full disk and the like, 2 for a name that is wrong.
[[noreturn]] void failToWrite(const std::string& name, int error);

/// Writes all bytes to a descriptor, however often the system takes only a part. Throws as
/// failToWrite(); messages call the descriptor `name`.
void writeAll(int descriptor, const std::string& bytes, const std::string& name);

/// Throws UserError if there is something else than a file of this name: a folder, a pipe or a
/// device. `instead` says what to name.
void requireFile(const std::string& path, const std::string& instead);

/// An open file that has each piece of text whole or not at all.
class OutputFile
{
public:
    /// Opens a file, or creates it, without a change of what is in it. Throws UserError, also for a
    /// terminal: bytes that are meant for a file do not go to a serial line.
    static OutputFile open(const std::string& path);
    /// Takes over the descriptor. Messages call the file `name`.
    OutputFile(int descriptor, std::string name);
    OutputFile(OutputFile&& other) noexcept;
    OutputFile& operator=(OutputFile&&) = delete;
    ~OutputFile();

    int descriptor() const { return m_descriptor; }
    const std::string& name() const { return m_name; }
    /// True for a file on a disk, not for a pipe or a device.
    bool isRegular() const { return m_regular; }
    /// Throws UserError while another program has the file locked. The lock ends with the program.
    void lock();

    /// Appends the bytes at the end of what was written. Throws UserError when they do not fit;
    /// nothing of them is then in a regular file.
    void write(const std::string& bytes);
    /// Closes the file. Throws UserError when the system only now reports that bytes are lost.
    void close();

private:
    int m_descriptor;
    std::string m_name;
    bool m_regular = false;
};

} // namespace micro850

#endif
