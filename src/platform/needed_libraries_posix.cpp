#include "platform/needed_libraries.h"

#include <elf.h>

#include <cstring>
#include <optional>
#include <string_view>

#include "platform/files.h"

namespace rq::platform {

namespace {

template <class T>
std::optional<T> ReadAt(std::string_view file, std::uint64_t offset) {
    if (offset > file.size() || file.size() - offset < sizeof(T)) return std::nullopt;
    T value;
    std::memcpy(&value, file.data() + offset, sizeof value);
    return value;
}

std::vector<Elf64_Phdr> ProgramHeaders(std::string_view file) {
    std::vector<Elf64_Phdr> headers;
    const auto header = ReadAt<Elf64_Ehdr>(file, 0);
    if (!header || std::memcmp(header->e_ident, ELFMAG, SELFMAG) != 0) return headers;
    if (header->e_ident[EI_CLASS] != ELFCLASS64) return headers;
    constexpr unsigned char ours = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? ELFDATA2LSB : ELFDATA2MSB;
    if (header->e_ident[EI_DATA] != ours) return headers;
    for (unsigned i = 0; i < header->e_phnum; ++i) {
        const auto entry = ReadAt<Elf64_Phdr>(file, header->e_phoff + std::uint64_t{i} * header->e_phentsize);
        if (!entry) break;
        headers.push_back(*entry);
    }
    return headers;
}

// Where in the file an address of the loaded library lies.
std::optional<std::uint64_t> FileOffset(const std::vector<Elf64_Phdr>& headers, std::uint64_t address) {
    for (const auto& header : headers) {
        if (header.p_type != PT_LOAD || address < header.p_vaddr) continue;
        if (address - header.p_vaddr < header.p_filesz) return address - header.p_vaddr + header.p_offset;
    }
    return std::nullopt;
}

std::vector<Elf64_Dyn> DynamicEntries(std::string_view file, const std::vector<Elf64_Phdr>& headers) {
    std::vector<Elf64_Dyn> entries;
    for (const auto& header : headers) {
        if (header.p_type != PT_DYNAMIC) continue;
        for (std::uint64_t at = 0; at + sizeof(Elf64_Dyn) <= header.p_filesz; at += sizeof(Elf64_Dyn)) {
            const auto entry = ReadAt<Elf64_Dyn>(file, header.p_offset + at);
            if (!entry || entry->d_tag == DT_NULL) break;
            entries.push_back(*entry);
        }
    }
    return entries;
}

}  // namespace

std::vector<std::string> NeededLibraries(const std::string& path) {
    const auto bytes = ReadWholeFile(path);
    if (!bytes) return {};
    const auto headers = ProgramHeaders(*bytes);
    const auto entries = DynamicEntries(*bytes, headers);
    std::optional<std::uint64_t> names;
    for (const auto& entry : entries) {
        if (entry.d_tag == DT_STRTAB) names = FileOffset(headers, entry.d_un.d_ptr);
    }
    std::vector<std::string> needed;
    if (!names || *names > bytes->size()) return needed;
    const std::string_view table = std::string_view(*bytes).substr(*names);
    for (const auto& entry : entries) {
        if (entry.d_tag != DT_NEEDED || entry.d_un.d_val >= table.size()) continue;
        const auto text = table.substr(entry.d_un.d_val);
        needed.emplace_back(text.substr(0, text.find('\0')));
    }
    return needed;
}

}  // namespace rq::platform
