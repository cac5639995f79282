#include "platform/needed_libraries.h"

#include <cstring>
#include <optional>
#include <string_view>

#include "platform/files.h"
#include "platform/win_api.h"

namespace rq::platform {

namespace {

template <class T>
std::optional<T> ReadAt(std::string_view file, std::uint64_t offset) {
    if (offset > file.size() || file.size() - offset < sizeof(T)) return std::nullopt;
    T value;
    std::memcpy(&value, file.data() + offset, sizeof value);
    return value;
}

// The headers of a 64-bit PE file, and its sections.
struct Image {
    IMAGE_NT_HEADERS64 headers{};
    std::vector<IMAGE_SECTION_HEADER> sections;
};

std::optional<Image> ReadImage(std::string_view file) {
    const auto dos = ReadAt<IMAGE_DOS_HEADER>(file, 0);
    if (!dos || dos->e_magic != IMAGE_DOS_SIGNATURE || dos->e_lfanew < 0) return std::nullopt;
    const auto at = static_cast<std::uint64_t>(dos->e_lfanew);
    const auto headers = ReadAt<IMAGE_NT_HEADERS64>(file, at);
    if (!headers || headers->Signature != IMAGE_NT_SIGNATURE) return std::nullopt;
    if (headers->OptionalHeader.Magic != IMAGE_NT_OPTIONAL_HDR64_MAGIC) return std::nullopt;
    Image image{*headers, {}};
    std::uint64_t next =
        at + offsetof(IMAGE_NT_HEADERS64, OptionalHeader) + headers->FileHeader.SizeOfOptionalHeader;
    for (unsigned i = 0; i < headers->FileHeader.NumberOfSections;
         ++i, next += sizeof(IMAGE_SECTION_HEADER)) {
        const auto section = ReadAt<IMAGE_SECTION_HEADER>(file, next);
        if (!section) return std::nullopt;
        image.sections.push_back(*section);
    }
    return image;
}

// Where in the file an address of the loaded library lies.
std::optional<std::uint64_t> FileOffset(const Image& image, std::uint64_t address) {
    for (const auto& section : image.sections) {
        if (address < section.VirtualAddress || address - section.VirtualAddress >= section.SizeOfRawData)
            continue;
        return address - section.VirtualAddress + section.PointerToRawData;
    }
    return std::nullopt;
}

}  // namespace

std::vector<std::string> NeededLibraries(const std::string& path) {
    std::vector<std::string> needed;
    const auto bytes = ReadWholeFile(path);
    if (!bytes) return needed;
    const auto image = ReadImage(*bytes);
    if (!image) return needed;
    const auto& directory = image->headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    auto at = FileOffset(*image, directory.VirtualAddress);
    if (directory.Size == 0 || !at) return needed;
    for (;; *at += sizeof(IMAGE_IMPORT_DESCRIPTOR)) {
        const auto entry = ReadAt<IMAGE_IMPORT_DESCRIPTOR>(*bytes, *at);
        if (!entry || entry->Name == 0) return needed;
        const auto name = FileOffset(*image, entry->Name);
        if (!name || *name >= bytes->size()) return needed;
        const auto text = std::string_view(*bytes).substr(*name);
        const auto end = text.find('\0');
        if (end == std::string_view::npos) return needed;
        needed.emplace_back(text.substr(0, end));
    }
}

}  // namespace rq::platform
