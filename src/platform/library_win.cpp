// The system says only that some module was not found (126) or is none (193). So after a failure the names
// that the library asks for are looked up as the system would, and the one that is missing or damaged is
// told.
#include "platform/library.h"

#include <algorithm>
#include <set>

#include "platform/needed_libraries.h"
#include "platform/win_api.h"

namespace rq::platform {

namespace {

constexpr int kDeepest = 16;  // libraries that need libraries

bool HasSeparator(const std::string& path) {
    return path.find_first_of("\\/") != std::string::npos;
}

bool Exists(const std::wstring& path) {
    return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::wstring FullPath(const std::wstring& path) {
    std::wstring full(::GetFullPathNameW(path.c_str(), 0, nullptr, nullptr), L'\0');
    full.resize(::GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr));
    return full;
}

std::wstring FolderWithSeparator(const std::wstring& path) {
    return path.substr(0, path.rfind(L'\\') + 1);
}

std::wstring BesideExecutable(const std::wstring& name) {
    wchar_t buffer[MAX_PATH];
    const DWORD length = ::GetModuleFileNameW(nullptr, buffer, MAX_PATH);
    return FolderWithSeparator({buffer, length}) + name;
}

// Where the system finds a needed library: `folder` (when it looks there first), the program's folder, the
// system's, the current one, PATH. Empty: nowhere.
std::wstring Find(const std::wstring& name, const std::wstring& folder) {
    if (!folder.empty() && Exists(folder + name)) return folder + name;
    std::wstring path(::SearchPathW(nullptr, name.c_str(), nullptr, 0, nullptr, nullptr), L'\0');
    if (path.empty()) return {};
    path.resize(
        ::SearchPathW(nullptr, name.c_str(), nullptr, static_cast<DWORD>(path.size()), path.data(), nullptr));
    return path;
}

// Names that stand for a part of the system, not for a file.
bool IsSystemSet(const std::string& name) {
    std::string head = name.substr(0, 7);
    std::transform(head.begin(), head.end(), head.begin(),
                   [](unsigned char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c); });
    return head == "api-ms-" || head == "ext-ms-";
}

// "needs x.dll, which is not there"; empty when nothing of the kind is found.
std::string WhatIsWrongBelow(const std::string& path, const std::wstring& folder,
                             std::set<std::wstring>& seen, int depth) {
    if (depth > kDeepest) return {};
    for (const std::string& name : NeededLibraries(path)) {
        const std::wstring wide = WideOf(name);
        if (IsSystemSet(name) || ::GetModuleHandleW(wide.c_str()) != nullptr || !seen.insert(wide).second)
            continue;
        const std::wstring found = Find(wide, folder);
        if (found.empty()) return path + " needs " + name + ", which is not found";
        const HMODULE image = ::LoadLibraryExW(found.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE);
        if (image == nullptr)
            return path + " needs " + Utf8Of(found) + ": " + SystemMessage(::GetLastError());
        ::FreeLibrary(image);
        const std::string below = WhatIsWrongBelow(Utf8Of(found), folder, seen, depth + 1);
        if (!below.empty()) return below;
    }
    return {};
}

void Explain(OsError* error, DWORD code, const std::wstring& path, const std::wstring& folder) {
    if (error == nullptr) return;
    SetOsError(error, code, "load " + Utf8Of(path));
    std::set<std::wstring> seen;
    const std::string below = WhatIsWrongBelow(Utf8Of(path), folder, seen, 0);
    if (!below.empty()) error->message += " (" + below + ")";
}

}  // namespace

void* LoadPlainLibrary(const std::string& path, OsError* error) {
    const std::wstring native = NativeSeparators(path);
    if (const HMODULE library = ::LoadLibraryW(native.c_str()); library != nullptr) return library;
    Explain(error, ::GetLastError(), native, std::wstring());
    return nullptr;
}

// A relative path is not defined for this kind of search: it is made absolute.
void* LoadLibraryAltered(const std::string& path, OsError* error) {
    std::wstring native = NativeSeparators(path);
    if (HasSeparator(path)) {
        native = FullPath(native);
    } else if (const std::wstring beside = BesideExecutable(native); Exists(beside)) {
        native = beside;
    }
    const bool isPath = native.find(L'\\') != std::wstring::npos;
    const DWORD flags = isPath ? LOAD_WITH_ALTERED_SEARCH_PATH : 0;
    if (const HMODULE library = ::LoadLibraryExW(native.c_str(), nullptr, flags); library != nullptr)
        return library;
    Explain(error, ::GetLastError(), native, isPath ? FolderWithSeparator(native) : std::wstring());
    return nullptr;
}

void* FindSymbol(void* library, const char* name) {
    if (library == nullptr) return nullptr;
    return reinterpret_cast<void*>(::GetProcAddress(static_cast<HMODULE>(library), name));
}

std::string SharedLibraryFileName(const std::string& stem) {
    return stem + ".dll";
}

}  // namespace rq::platform
