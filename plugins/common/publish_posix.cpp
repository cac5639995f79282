#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>

#include "plugin_common/file.h"
#include "plugin_common/publish.h"

namespace rq::task {
namespace {

// A file name has at most 255 bytes; the digits, the dots and the suffix take 25.
constexpr std::size_t kMaxKeptName_bytes = 200;
// How often a new name is tried when a cleaner took the last one.
constexpr int kMaxAttempts = 16;
constexpr std::uint64_t kStartWriting_bytes = 16u << 20;
// Looking for temporaries of dead processes is a courtesy; a huge folder on a slow share ends it.
constexpr std::chrono::milliseconds kMaxCleaning{500};

std::uint32_t LastCode() {
    return static_cast<std::uint32_t>(errno);
}

std::string FolderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string_view NameOf(const std::string& path) {
    return std::string_view(path).substr(path.rfind('/') + 1);
}

// Cuts between characters, not inside one.
std::string_view CutName(std::string_view name) {
    if (name.size() <= kMaxKeptName_bytes) return name;
    std::size_t end = kMaxKeptName_bytes;
    while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xC0u) == 0x80u) --end;
    return name.substr(0, end);
}

bool RandomDigits(std::string& digits) {
    std::uint64_t value = 0;
    if (::getrandom(&value, sizeof value, 0) != static_cast<ssize_t>(sizeof value)) return false;
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(value));
    digits = text;
    return true;
}

bool IsNameOf(const std::string& path, int fd) {
    struct stat byName {};
    struct stat byHandle {};
    return ::lstat(path.c_str(), &byName) == 0 && ::fstat(fd, &byHandle) == 0 &&
           byName.st_dev == byHandle.st_dev && byName.st_ino == byHandle.st_ino;
}

// A temporary whose lock is free has lost its owner. The name is removed while the lock is held, so that it
// cannot be that of a file just made by another process: that one tests its name after it has the lock.
void RemoveIfOwnerIsDead(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) return;
    struct stat facts {};
    if (::fstat(fd, &facts) == 0 && S_ISREG(facts.st_mode) && ::flock(fd, LOCK_EX | LOCK_NB) == 0 &&
        IsNameOf(path, fd))
        ::unlink(path.c_str());
    ::close(fd);
}

// Syncing one after the other, each waits for a write of the file system's journal. With so many at a time
// the whole file system is synced instead; what others wrote there is waited for too.
constexpr std::size_t kMany = 8;

// Those of which syncfs leaves everything on the disk. Others (FUSE, shares) only hand it on by it.
bool SyncsAsAWhole(int fd) {
    struct statfs facts {};
    if (::fstatfs(fd, &facts) != 0) return false;
    const auto type = static_cast<std::uint32_t>(facts.f_type);
    constexpr std::array<std::uint32_t, 5> kKnown{EXT4_SUPER_MAGIC, XFS_SUPER_MAGIC, BTRFS_SUPER_MAGIC,
                                                  F2FS_SUPER_MAGIC, TMPFS_MAGIC};
    return std::find(kKnown.begin(), kKnown.end(), type) != kKnown.end();
}

// The code of each.
std::vector<std::uint32_t> SyncTogether(const std::vector<int>& fds) {
    std::map<dev_t, std::vector<std::size_t>> disks;
    for (std::size_t i = 0; i < fds.size(); ++i) {
        struct stat facts {};
        if (::fstat(fds[i], &facts) == 0) disks[facts.st_dev].push_back(i);
    }
    std::vector<std::uint32_t> codes(fds.size(), 0);
    for (const auto& [disk, members] : disks) {
        const int first = fds[members.front()];
        const bool isWhole = members.size() >= kMany && SyncsAsAWhole(first) && ::syncfs(first) == 0;
        for (const std::size_t i : members) {
            // After a sync of the whole only the question is left whether this file was written.
            constexpr unsigned kWritten =
                SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
            if (isWhole && ::sync_file_range(fds[i], 0, 0, kWritten) == 0) continue;
            if (::fsync(fds[i]) != 0) codes[i] = LastCode();
        }
    }
    return codes;
}

}  // namespace

void RemoveLeftTemporaries(const std::string& folder) {
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(::opendir(folder.c_str()), &::closedir);
    if (!entries) return;
    const auto end = std::chrono::steady_clock::now() + kMaxCleaning;
    while (const dirent* entry = ::readdir(entries.get())) {
        if (IsTemporaryName(entry->d_name)) RemoveIfOwnerIsDead(folder + "/" + entry->d_name);
        if (std::chrono::steady_clock::now() > end) return;
    }
}

void SyncFolders(const std::vector<std::string>& folders) {
    std::vector<int> fds;
    for (const std::string& folder : folders) {
        const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd >= 0) fds.push_back(fd);
    }
    (void)SyncTogether(fds);  // not every file system can; the files themselves are synced by then
    for (const int fd : fds) ::close(fd);
}

bool IsSameFile(const std::string& first, const std::string& second) {
    struct stat a {};
    struct stat b {};
    return ::stat(first.c_str(), &a) == 0 && ::stat(second.c_str(), &b) == 0 && a.st_dev == b.st_dev &&
           a.st_ino == b.st_ino;
}

std::string WhyNoName(const std::string&) {
    return {};
}

std::optional<PublishFailure> Publication::Fail(PublishProblem problem, std::uint32_t code,
                                                const std::string& what) {
    Discard();
    return PublishFailure{problem, code, what + (code == 0 ? "" : ": " + SystemWords(code))};
}

std::optional<PublishFailure> Publication::Begin(const std::string& target,
                                                 const std::vector<std::string>& sources, bool overwrite,
                                                 Cleaning cleaning) {
    Discard();
    m_target = target;
    m_overwrite = overwrite;
    m_mode = -1;
    m_facts.reset();
    m_isSynced = false;
    m_sizeBytes = 0;
    m_startedWritingBytes = 0;
    const auto same = std::find_if(sources.begin(), sources.end(), [&](const std::string& source) {
        return source == target || IsSameFile(source, target);
    });
    if (same != sources.end())
        return Fail(PublishProblem::kTargetIsSource, 0, target + ": the target is the source " + *same);
    struct stat facts {};
    if (::lstat(target.c_str(), &facts) == 0) {
        if (!overwrite) return Fail(PublishProblem::kTargetExists, 0, target + ": the target exists already");
        if (!S_ISREG(facts.st_mode) && !S_ISLNK(facts.st_mode))
            return Fail(PublishProblem::kTargetExists, 0,
                        target + ": the target exists and is no plain file; it is not overwritten");
        if (S_ISREG(facts.st_mode)) m_mode = facts.st_mode & 0777;
    } else if (errno == ENAMETOOLONG) {
        return Fail(PublishProblem::kCreate, ENAMETOOLONG, target);
    }
    const std::string folder = FolderOf(target);
    if (cleaning == Cleaning::kDo) RemoveLeftTemporaries(folder);
    return CreateTemporary(folder, CutName(NameOf(target)));
}

std::optional<PublishFailure> Publication::CreateTemporary(const std::string& folder, std::string_view name) {
    const std::string begin = folder + "/." + std::string(name) + ".";
    for (int i = 0; i < kMaxAttempts; ++i) {
        std::string digits;
        if (!RandomDigits(digits)) break;
        std::string path = begin;
        path.append(digits).append(".rqpart");
        const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666);
        if (fd < 0) {
            const std::uint32_t code = LastCode();
            if (code == EEXIST) continue;
            return Fail(PublishProblem::kCreate, code,
                        folder + ": no file can be made in the target's folder");
        }
        // A cleaner may have had the lock between these calls, and then removes the name.
        const bool isLocked = ::flock(fd, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
        if (isLocked && IsNameOf(path, fd)) {
            m_handle = fd;
            m_temporary = path;
            return std::nullopt;
        }
        ::close(fd);
    }
    return Fail(PublishProblem::kCreate, 0,
                folder + ": no temporary file could be kept in the target's folder");
}

std::uint32_t Publication::WriteAt(std::uint64_t offset_bytes, const void* bytes, std::size_t count) {
    const auto* from = static_cast<const char*>(bytes);
    const int fd = static_cast<int>(m_handle);
    while (count > 0) {
        const ssize_t n = ::pwrite(fd, from, count, static_cast<off_t>(offset_bytes));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return LastCode();
        if (n == 0) return EIO;
        from += n;
        offset_bytes += static_cast<std::uint64_t>(n);
        count -= static_cast<std::size_t>(n);
    }
    if (offset_bytes > m_sizeBytes) m_sizeBytes = offset_bytes;
    StartWriting();
    return 0;
}

void Publication::StartWriting() {
    if (m_sizeBytes - m_startedWritingBytes < kStartWriting_bytes) return;
    // Advice only; what cannot be written is found by the sync.
    (void)::sync_file_range(static_cast<int>(m_handle), static_cast<off_t>(m_startedWritingBytes),
                            static_cast<off_t>(m_sizeBytes - m_startedWritingBytes), SYNC_FILE_RANGE_WRITE);
    m_startedWritingBytes = m_sizeBytes;
}

std::uint32_t Publication::CopyFrom(const InputFile& source, std::uint64_t offset_bytes,
                                    std::uint64_t wanted_bytes, std::uint64_t& copied_bytes) {
    copied_bytes = 0;
    auto from = static_cast<off_t>(offset_bytes);
    auto to = from;
    while (copied_bytes < wanted_bytes) {
        const ssize_t n = ::copy_file_range(static_cast<int>(source.Handle()), &from,
                                            static_cast<int>(m_handle), &to, wanted_bytes - copied_bytes, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP))
            return kNotOffloaded;
        if (n < 0) return LastCode();
        // Some file systems say this instead of refusing; at the end of the source the caller finds out too.
        if (n == 0) return copied_bytes == 0 ? kNotOffloaded : 0;
        copied_bytes += static_cast<std::uint64_t>(n);
    }
    m_sizeBytes = std::max(m_sizeBytes, offset_bytes + copied_bytes);
    StartWriting();
    return 0;
}

std::uint32_t Publication::MakeSparse() {
    return 0;  // every file is
}

std::uint32_t Publication::SetSize(std::uint64_t size_bytes) {
    if (::ftruncate(static_cast<int>(m_handle), static_cast<off_t>(size_bytes)) != 0) return LastCode();
    m_sizeBytes = size_bytes;
    return 0;
}

void Publication::TakeFactsOf(const InputFile& source) {
    m_facts = source.FactsToKeep();
}

void Publication::KeepPrivate() {
    (void)::fchmod(static_cast<int>(m_handle), 0600);
}

std::uint32_t Publication::ApplyFacts() {
    const timespec times[2] = {{0, UTIME_OMIT},
                               {static_cast<time_t>(m_facts->modified_ns / 1'000'000'000),
                                static_cast<long>(m_facts->modified_ns % 1'000'000'000)}};
    const int fd = static_cast<int>(m_handle);
    return ::fchmod(fd, m_facts->mode) == 0 && ::futimens(fd, times) == 0 ? 0 : LastCode();
}

std::optional<PublishFailure> Publication::Sync() {
    if (m_temporary.empty()) return Fail(PublishProblem::kWrite, 0, m_target + ": nothing was begun");
    // Not every file system keeps them: the content is what counts.
    if (m_facts) (void)ApplyFacts();
    return Synced(::fsync(static_cast<int>(m_handle)) == 0 ? 0 : LastCode());
}

std::optional<PublishFailure> Publication::Synced(std::uint32_t code) {
    if (code != 0)
        return Fail(PublishProblem::kWrite, code, m_target + ": the file cannot be written to the disk");
    m_isSynced = true;
    return std::nullopt;
}

void Publication::EndWriting() {
    if (m_facts) (void)ApplyFacts();
    (void)::sync_file_range(static_cast<int>(m_handle), 0, 0, SYNC_FILE_RANGE_WRITE);
}

std::vector<std::optional<PublishFailure>> Publication::SyncAll(const std::vector<Publication*>& files) {
    std::vector<int> fds;
    for (const Publication* file : files) fds.push_back(static_cast<int>(file->m_handle));
    const std::vector<std::uint32_t> codes = SyncTogether(fds);
    std::vector<std::optional<PublishFailure>> failures;
    for (std::size_t i = 0; i < files.size(); ++i) failures.push_back(files[i]->Synced(codes[i]));
    return failures;
}

std::optional<PublishFailure> Publication::Publish(const Check& check) {
    if (auto failure = GiveName(check)) return failure;
    SyncFolders({FolderOf(m_target)});
    return std::nullopt;
}

std::optional<PublishFailure> Publication::GiveName(const Check& check) {
    if (!m_isSynced)
        if (auto failure = Sync()) return failure;
    // What cannot be set stays as it is for new files: the rights are no part of the output.
    if (m_mode >= 0 && !m_facts) (void)::fchmod(static_cast<int>(m_handle), static_cast<mode_t>(m_mode));
    if (!check(m_temporary))
        return Fail(PublishProblem::kCheck, 0, m_target + ": the written file is not as it should be");
    if (auto failure = Rename()) return failure;
    m_temporary.clear();
    Discard();
    return std::nullopt;
}

std::optional<PublishFailure> Publication::Rename() {
    const std::uint32_t code = m_overwrite
                                   ? (::rename(m_temporary.c_str(), m_target.c_str()) == 0 ? 0 : LastCode())
                                   : RenameToFreeName();
    if (code == 0) return std::nullopt;
    if (code == EEXIST && !m_overwrite)
        return Fail(PublishProblem::kTargetExists, 0,
                    m_target + ": the target has come into being meanwhile");
    return Fail(PublishProblem::kRename, code, m_target + ": the finished file cannot be given its name");
}

std::uint32_t Publication::RenameToFreeName() {
    if (::renameat2(AT_FDCWD, m_temporary.c_str(), AT_FDCWD, m_target.c_str(), RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL && errno != ENOSYS) return LastCode();
    // The file system has no such rename: a second name instead, and the first removed.
    if (::link(m_temporary.c_str(), m_target.c_str()) == 0) {
        ::unlink(m_temporary.c_str());
        return 0;
    }
    if (errno != EPERM && errno != EOPNOTSUPP && errno != ENOSYS) return LastCode();
    // Nor links: the name is taken by an empty file that only one can create, and replaced.
    const int fd = ::open(m_target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0) return LastCode();
    ::close(fd);
    if (::rename(m_temporary.c_str(), m_target.c_str()) == 0) return 0;
    const std::uint32_t code = LastCode();
    ::unlink(m_target.c_str());
    return code;
}

void Publication::Discard() {
    // The name goes before the lock does.
    if (!m_temporary.empty()) ::unlink(m_temporary.c_str());
    m_temporary.clear();
    if (m_handle >= 0) ::close(static_cast<int>(m_handle));
    m_handle = -1;
}

}  // namespace rq::task
