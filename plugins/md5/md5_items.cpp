#include "md5_items.h"

#include "plugin_common/codes.h"
#include "plugin_common/file.h"
#include "plugin_common/publish.h"

namespace rq::md5 {
namespace {

Failure Unreadable(std::uint32_t code) {
    return {code, task::kErrorSourceUnreadable, task::SystemWords(code)};
}

// The next line from `at`, without its end; `at` then stands behind it.
std::string_view TakeLine(std::string_view text, std::size_t& at) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    std::string_view line = text.substr(at, end - at);
    at = std::min(end + 1, text.size());
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    return line;
}

bool IsComment(std::string_view line) {
    return line.empty() || line.front() == '#';
}

// Nothing when every line can be read.
std::optional<Failure> CheckLines(std::string_view text) {
    Checksum checksum;
    std::size_t number = 0;
    bool isAny = false;
    for (std::size_t at = 0; at < text.size();) {
        const std::string_view line = TakeLine(text, at);
        ++number;
        if (IsComment(line)) continue;
        if (!ParseChecksum(line, checksum))
            return Failure{0, task::kErrorSourceDamaged,
                           "line " + std::to_string(number) + " is no checksum as md5sum writes it"};
        isAny = true;
    }
    if (isAny) return std::nullopt;
    return Failure{0, task::kErrorSourceDamaged, "the checksum file names no file"};
}

std::optional<Failure> ReadChecksums(const std::string& path, std::string& text) {
    task::InputFile file;
    if (const std::uint32_t code = file.Open(path); code != 0) return Unreadable(code);
    if (file.Size() > kMaxChecksumFile_bytes)
        return Failure{
            0, task::kErrorSourceDamaged,
            "the checksum file has more than " + std::to_string(kMaxChecksumFile_bytes >> 20) + " MiB"};
    text.resize(static_cast<std::size_t>(file.Size()));
    std::size_t got = 0;
    if (const std::uint32_t code = file.Read(text.data(), text.size(), got); code != 0)
        return Unreadable(code);
    text.resize(got);
    if (file.Changed()) return Failure{0, task::kErrorSourceChanged, "the file changed while it was read"};
    if (text.compare(0, 3, "\xEF\xBB\xBF") == 0) text.erase(0, 3);
    return CheckLines(text);
}

}  // namespace

bool ItemSource::Next(Item& item) {
    item = {};
    for (;;) {
        if (NextInFolders(item) || NextChecksum(item)) return true;
        if (m_next == m_task.files.size()) return false;
        if (Open(m_task.files[m_next++], item)) return true;
    }
}

// True when `item` is set.
bool ItemSource::Open(const TaskFile& file, Item& item) {
    if (file.kind == TaskFile::Kind::kFolder) return OpenFolder(file.path, item);
    if (file.kind == TaskFile::Kind::kChecksums) return OpenChecksums(file.path, item);
    item.path = file.path;
    item.expected = file.expected;
    return true;
}

bool ItemSource::OpenFolder(const std::string& path, Item& item) {
    Level level{path, {}, 0};
    std::optional<Failure> failure;
    if (m_levels.size() == kMaxFolderDepth)
        failure = Failure{0, task::kErrorSourceUnreadable, "folders are nested too deep"};
    else if (const std::uint32_t code = task::ListFolder(path, level.entries, m_goOn); code != 0)
        failure = Unreadable(code);
    if (!failure) {
        m_levels.push_back(std::move(level));
        return false;
    }
    item.path = path;
    item.failure = std::move(failure);
    return true;
}

bool ItemSource::NextInFolders(Item& item) {
    while (!m_levels.empty()) {
        Level& level = m_levels.back();
        if (level.next == level.entries.size()) {
            m_levels.pop_back();
            continue;
        }
        const task::FolderEntry& entry = level.entries[level.next++];
        const std::string path = task::PathBelow(level.path, entry.name);
        if (entry.kind == task::EntryKind::kFolder) {
            if (OpenFolder(path, item)) return true;
        } else if (entry.kind != task::EntryKind::kFile || task::IsTemporaryName(entry.name)) {
            if (m_ownTemporary.empty() || !task::IsSameFile(path, m_ownTemporary)) ++m_leftOut;
        } else if (!IsOwnOutput(path)) {
            item.path = path;
            return true;
        }
    }
    return false;
}

// The checksum file that the task writes, when it lies in a folder that the task reads.
bool ItemSource::IsOwnOutput(const std::string& path) const {
    if (!m_task.output) return false;
    const std::string& own = m_task.output->path;
    return path.substr(task::FolderPart(path).size()) == own.substr(task::FolderPart(own).size()) &&
           task::IsSameFile(path, own);
}

bool ItemSource::OpenChecksums(const std::string& path, Item& item) {
    m_checksumsAt = 0;
    m_checksumsFolder = task::FolderPart(path);
    item.failure = ReadChecksums(path, m_checksums);
    if (!item.failure) return false;
    m_checksums.clear();
    item.path = path;
    return true;
}

bool ItemSource::NextChecksum(Item& item) {
    while (m_checksumsAt < m_checksums.size()) {
        const std::string_view line = TakeLine(m_checksums, m_checksumsAt);
        Checksum checksum;
        if (IsComment(line) || !ParseChecksum(line, checksum)) continue;
        const std::string name = task::WithSeparators(checksum.name);
        item.path = task::IsAbsolutePath(name) ? name : task::PathBelow(m_checksumsFolder, name);
        item.expected = checksum.digest;
        return true;
    }
    std::string().swap(m_checksums);
    m_checksumsAt = 0;
    return false;
}

}  // namespace rq::md5
