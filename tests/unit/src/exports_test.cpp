// What the built library exports to a host, read from its file and not from its headers.

#include <gtest/gtest.h>

#include <cxxabi.h>
#include <elf.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

#if __SIZEOF_POINTER__ == 8
typedef Elf64_Ehdr FileHeader;
typedef Elf64_Shdr Section;
typedef Elf64_Sym Symbol;
#else
typedef Elf32_Ehdr FileHeader;
typedef Elf32_Shdr Section;
typedef Elf32_Sym Symbol;
#endif

std::vector<char> bytesOf(const char* path)
{
    std::ifstream file(path, std::ios::binary);
    return std::vector<char>(std::istreambuf_iterator<char>(file), {});
}

template<typename T> T at(const std::vector<char>& bytes, std::size_t offset)
{
    T value;
    std::memcpy(&value, &bytes.at(offset), sizeof value);
    return value;
}

// The name as in C++ source; a name that is not mangled is returned unchanged.
std::string readable(const std::string& symbol)
{
    int status = 0;
    const std::unique_ptr<char, void (*)(void*)> text(
        abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status), std::free);
    const bool mangled = symbol.compare(0, 2, "_Z") == 0;
    return mangled && status == 0 ? text.get() : symbol;
}

// Names that the linker, the sanitizers and the coverage build add.
bool isFromToolchain(const std::string& symbol)
{
    for (const char* prefix :
         {"__asan", "__odr_asan", "__ubsan", "__tsan", "__sanitizer", "__gcov"}) {
        if (symbol.compare(0, std::strlen(prefix), prefix) == 0)
            return true;
    }
    const std::set<std::string> linkers = {"_init",       "_fini",          "_edata",     "_end",
                                           "__bss_start", "__gmon_start__", "mangle_path"};
    return linkers.count(symbol) != 0;
}

std::string entryOf(const Symbol& symbol, const std::string& name)
{
    const bool isObject = (symbol.st_info & 0xF) == STT_OBJECT;
    return std::string(isObject ? "object   " : "function ") + readable(name);
}

std::set<std::string> exportsOf(const char* path)
{
    const std::vector<char> file = bytesOf(path);
    const FileHeader header = at<FileHeader>(file, 0);
    const auto section = [&](std::size_t i) {
        return at<Section>(file, header.e_shoff + i * header.e_shentsize);
    };
    std::set<std::string> names;
    for (std::size_t i = 0; i < header.e_shnum; ++i) {
        const Section table = section(i);
        if (table.sh_type != SHT_DYNSYM)
            continue;
        const std::size_t strings = section(table.sh_link).sh_offset;
        for (std::size_t at_ = 0; at_ < table.sh_size; at_ += sizeof(Symbol)) {
            const Symbol symbol = at<Symbol>(file, table.sh_offset + at_);
            const std::string name = &file.at(strings + symbol.st_name);
            if (symbol.st_shndx != SHN_UNDEF && !name.empty() && !isFromToolchain(name))
                names.insert(entryOf(symbol, name));
        }
    }
    return names;
}

std::set<std::string> committedList()
{
    std::ifstream file(MICRO850_EXPORTS);
    std::set<std::string> names;
    for (std::string line; std::getline(file, line);) {
        if (!line.empty() && line[0] != '#')
            names.insert(line);
    }
    return names;
}

std::string listed(const std::set<std::string>& some, const std::set<std::string>& others)
{
    std::string lines;
    for (const std::string& name : some)
        lines += others.count(name) ? "" : name + "\n";
    return lines;
}

TEST(Exports, ContainEveryNameOfTheCommittedList)
{
    const std::set<std::string> expected = committedList();
    ASSERT_FALSE(expected.empty()) << MICRO850_EXPORTS;
    EXPECT_EQ(listed(expected, exportsOf(MICRO850_LIBRARY)), "") << "missing names";
}

TEST(Exports, ContainOnlyNamesOfTheCommittedList)
{
    const std::set<std::string> found = exportsOf(MICRO850_LIBRARY);
    ASSERT_FALSE(found.empty()) << MICRO850_LIBRARY;
    EXPECT_EQ(listed(found, committedList()), "") << "names that a host must not come to rely on";
}

TEST(Exports, NeedNoQtLibraryExceptQtCore)
{
    // The names of the dynamic section are in the same string table as those of the symbols.
    const std::vector<char> file = bytesOf(MICRO850_LIBRARY);
    const std::string text(file.begin(), file.end());
    EXPECT_NE(text.find("libQt5Core.so"), std::string::npos);
    for (const char* other : {"libQt5Gui", "libQt5Widgets", "libQt5Network", "libQt5SerialPort"})
        EXPECT_EQ(text.find(other), std::string::npos) << other;
}

TEST(Exports, IncludeANoteWithTheQtVersionOfTheBuild)
{
    // Sizes of owner and content, type 1, the owner with its terminator and padding, the major
    // version.
    const std::string note("\x09\0\0\0\x04\0\0\0\x01\0\0\0micro850\0\0\0\0\x05\0\0", 28);
    const std::vector<char> file = bytesOf(MICRO850_LIBRARY);
    const FileHeader header = at<FileHeader>(file, 0);
    int found = 0;
    for (std::size_t i = 0; i < header.e_shnum; ++i) {
        const Section section = at<Section>(file, header.e_shoff + i * header.e_shentsize);
        if (section.sh_type == SHT_NOTE && section.sh_size == note.size() &&
            std::memcmp(&file.at(section.sh_offset), note.data(), note.size()) == 0)
        {
            ++found;
            EXPECT_EQ(section.sh_addralign, 4u);
        }
    }
    EXPECT_EQ(found, 1);
}

} // namespace
