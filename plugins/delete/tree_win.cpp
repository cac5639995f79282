#include <utility>

#include "plugin_common/codes.h"
#include "plugin_common/file.h"
#include "plugin_common/win_text.h"
#include "tree.h"

namespace rq::del {
namespace {

constexpr DWORD kShareNames = FILE_SHARE_READ | FILE_SHARE_WRITE;
constexpr DWORD kNoLinks = FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT;

std::string In(const std::string& folder, const std::string& name) {
    return folder + (folder.ends_with('\\') || folder.ends_with('/') ? "" : "\\") + name;
}

class Handle {
  public:
    explicit Handle(HANDLE handle) : m_handle(handle) {}
    Handle(Handle&& other) noexcept : m_handle(std::exchange(other.m_handle, INVALID_HANDLE_VALUE)) {}
    ~Handle() {
        if (Valid()) ::CloseHandle(m_handle);
    }
    Handle& operator=(const Handle&) = delete;
    bool Valid() const { return m_handle != INVALID_HANDLE_VALUE; }
    HANDLE Get() const { return m_handle; }

  private:
    HANDLE m_handle;
};

bool AttributesOf(HANDLE file, DWORD& attributes) {
    BY_HANDLE_FILE_INFORMATION facts{};
    if (!::GetFileInformationByHandle(file, &facts)) return false;
    attributes = facts.dwFileAttributes;
    return true;
}

bool IsLink(DWORD attributes) {
    return (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}
bool IsPlainFolder(DWORD attributes) {
    return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 && !IsLink(attributes);
}
bool IsAbsentCode(DWORD code) {
    return code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND;
}

// An open folder whose name nobody can give to something else: deletion and renaming are not shared.
Handle Hold(const std::string& path, DWORD flags) {
    return Handle(::CreateFileW(task::NativePath(path).c_str(), FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES,
                                kShareNames, nullptr, OPEN_EXISTING, flags, nullptr));
}

struct Listed {
    std::string name;
    bool isFolder = false;  // a plain one, no link
};

std::uint32_t NamesIn(const std::string& folder, std::vector<Listed>& names) {
    WIN32_FIND_DATAW entry{};
    const HANDLE entries = ::FindFirstFileW(task::NativePath(In(folder, "*")).c_str(), &entry);
    if (entries == INVALID_HANDLE_VALUE)
        return ::GetLastError() == ERROR_FILE_NOT_FOUND ? 0 : ::GetLastError();
    do {
        const std::wstring_view name = entry.cFileName;
        if (name == L"." || name == L"..") continue;
        names.push_back({task::Utf8Of(name), IsPlainFolder(entry.dwFileAttributes)});
    } while (::FindNextFileW(entries, &entry));
    const DWORD code = ::GetLastError();
    ::FindClose(entries);
    return code == ERROR_NO_MORE_FILES ? 0 : code;
}

// The entry itself, whatever it is: a link, not what it leads to.
std::uint32_t DeleteEntry(const std::string& path) {
    const Handle file(::CreateFileW(task::NativePath(path).c_str(), DELETE | FILE_READ_ATTRIBUTES,
                                    kShareNames | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING, kNoLinks,
                                    nullptr));
    if (!file.Valid()) return ::GetLastError();
    FILE_DISPOSITION_INFO remove{TRUE};
    return ::SetFileInformationByHandle(file.Get(), FileDispositionInfo, &remove, sizeof remove)
               ? 0
               : ::GetLastError();
}

class Walker {
  public:
    Walker(TreeWalk walk, TreeEvents& events) : m_walk(walk), m_events(events) {}

    bool Entries(const std::string& path, const std::vector<Listed>& names, std::size_t depth) {
        std::vector<TreeEntry> files;
        for (const Listed& entry : names) {
            if (!m_events.GoOn()) return false;
            if (entry.isFolder) {
                if (!Folder(In(path, entry.name), depth)) return false;
                continue;
            }
            files.push_back({In(path, entry.name), false});
            if (files.size() == kBatch && !Remove(files)) return false;
        }
        return Remove(files);
    }

    bool Folder(const std::string& path, std::size_t depth) {
        if (depth == kDeepest) {
            m_events.Left(path, task::kErrorNotDeleted, 0,
                          "folders are nested more than " + std::to_string(kDeepest) + " deep");
            return true;
        }
        {
            const Handle held = Hold(path, kNoLinks);
            DWORD attributes = 0;
            DWORD code = held.Valid() && AttributesOf(held.Get(), attributes) ? 0 : ::GetLastError();
            // What stands there now is what was looked at.
            if (code == 0 && !IsPlainFolder(attributes)) code = ERROR_DIRECTORY;
            std::vector<Listed> names;
            if (code == 0) code = NamesIn(path, names);
            if (code != 0) {
                m_events.Left(path, task::kErrorNotDeleted, code, task::SystemWords(code));
                return true;
            }
            if (!Entries(path, names, depth + 1)) return false;
        }
        std::vector<TreeEntry> itself{{path, true}};
        return Remove(itself);
    }

    bool Remove(std::vector<TreeEntry>& batch) {
        if (batch.empty()) return true;
        if (!m_events.Announce(batch)) return false;
        if (m_walk == TreeWalk::kDelete) {
            for (const TreeEntry& entry : batch) {
                if (!m_events.GoOn()) return false;
                const std::uint32_t code = DeleteEntry(entry.path);
                // Another one may have been quicker.
                m_events.Done(entry, IsAbsentCode(code) ? 0 : code);
            }
        }
        batch.clear();
        return true;
    }

  private:
    TreeWalk m_walk;
    TreeEvents& m_events;
};

bool IsSeparator(char c) {
    return c == '\\' || c == '/';
}

// Why Windows would take the part for another one than it reads.
std::string WhyNoPart(std::string_view part) {
    if (part == "." || part == "..")
        return "has \"" + std::string(part) + "\" in it; give the path without it";
    if (part.back() == '.' || part.back() == ' ')
        return "has a part with a dot or blank at its end, which Windows drops; give it as the file is "
               "called";
    if (part.find(':') != std::string_view::npos)
        return "has a colon in it; give the path of a file or folder";
    return {};
}

}  // namespace

void WalkTree(const Place& place, bool recursive, TreeWalk walk, TreeEvents& events) {
    std::vector<Handle> held;
    held.push_back(Hold(place.folder, FILE_FLAG_BACKUP_SEMANTICS));
    if (!held.back().Valid()) {
        const DWORD code = ::GetLastError();
        return events.Left(place.folder, task::kErrorNotDeleted, code,
                           "the allowed folder cannot be opened: " + task::SystemWords(code));
    }
    std::string path = place.folder;
    for (std::size_t i = 0; i + 1 < place.below.size(); ++i) {
        path = In(path, place.below[i]);
        held.push_back(Hold(path, kNoLinks));
        DWORD attributes = 0;
        if (!held.back().Valid() || !AttributesOf(held.back().Get(), attributes)) {
            const DWORD code = ::GetLastError();
            if (IsAbsentCode(code)) return events.Absent(path);
            return events.Left(path, task::kErrorNotDeleted, code, task::SystemWords(code));
        }
        if (IsLink(attributes))
            return events.Left(path, task::kErrorThroughLink, 0,
                               "the path leads through a link; give the path without it");
        if (!IsPlainFolder(attributes))
            return events.Left(path, task::kErrorNotDeleted, ERROR_DIRECTORY,
                               task::SystemWords(ERROR_DIRECTORY));
    }
    path = In(path, place.below.back());
    DWORD attributes = 0;
    {
        const Handle item(::CreateFileW(task::NativePath(path).c_str(), FILE_READ_ATTRIBUTES,
                                        kShareNames | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING, kNoLinks,
                                        nullptr));
        if (!item.Valid() || !AttributesOf(item.Get(), attributes)) {
            const DWORD code = ::GetLastError();
            if (IsAbsentCode(code)) return events.Absent(path);
            return events.Left(path, task::kErrorNotDeleted, code, task::SystemWords(code));
        }
    }
    Walker walker(walk, events);
    if (IsPlainFolder(attributes) && recursive) {
        walker.Folder(path, 0);
        return;
    }
    std::vector<Listed> inside;
    if (IsPlainFolder(attributes) && NamesIn(path, inside) == 0 && !inside.empty())
        return events.Left(path, task::kErrorNotDeleted, ERROR_DIR_NOT_EMPTY, kNotEmpty);
    std::vector<TreeEntry> itself{{path, IsPlainFolder(attributes)}};
    walker.Remove(itself);
}

PathParts SplitPath(std::string_view path) {
    PathParts result;
    if (path.size() > 3 && IsSeparator(path[0]) && IsSeparator(path[1]) &&
        (path[2] == '?' || path[2] == '.') && IsSeparator(path[3])) {
        result.refusal = "begins with \"" + std::string(path.substr(0, 4)) + "\"; give it without that";
        return result;
    }
    const bool isShare = path.size() > 1 && IsSeparator(path[0]) && IsSeparator(path[1]);
    std::vector<std::string> parts;
    while (!path.empty()) {
        const std::size_t end = path.find_first_of("\\/");
        const std::string_view part = path.substr(0, end);
        if (!part.empty()) {
            if (const std::string why = WhyNoPart(part); !why.empty() && (isShare || !parts.empty()))
                result.refusal = why;
            parts.emplace_back(part);
        }
        path = end == std::string_view::npos ? std::string_view() : path.substr(end + 1);
    }
    // The drive, or the server and its share, are where a file system begins.
    if (isShare && parts.size() >= 2) {
        parts[1] = "\\\\" + parts[0] + "\\" + parts[1];
        parts.erase(parts.begin());
    } else if (isShare) {
        result.refusal = "names no share; give \\\\server\\share\\...";
    }
    result.parts = std::move(parts);
    return result;
}

bool IsSameName(std::string_view first, std::string_view second) {
    const std::wstring a = task::WideOf(first);
    const std::wstring b = task::WideOf(second);
    return ::CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()),
                                  TRUE) == CSTR_EQUAL;
}

}  // namespace rq::del
