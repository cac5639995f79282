// Publishing of a task's output: it is written under a temporary name beside the target, synced, checked by
// the caller, and only then renamed onto the target, so that nobody ever sees a target that is half done.
// Every plug-in that makes files uses it.
//
// The temporary is a plain file in the target's folder, ".<target's name>.<16 hexadecimal digits>.rqpart",
// created anew and locked (flock) for as long as its Publication lives. A process that dies leaves it behind,
// unlocked: the next publication in the same folder finds it by its name, gets its lock, and removes it.
// Where the file system has no locks, nobody can tell that its owner is dead, and it stays.
//
// The plug-ins' seam to the file system, like file.h: no header of the operating system, paths in UTF-8,
// codes of the system's own. One thread at a time for each object.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plugin_common/file.h"

namespace rq::task {

enum class PublishProblem {
    kTargetIsSource,  // the target is one of the sources, maybe through a link
    kTargetExists,    // and overwriting was not asked; or it is there and no plain file
    kCreate,          // no temporary in the target's folder
    kWrite,           // writing or syncing
    kCheck,           // the caller's check did not agree
    kRename,          // everything was done, but the name could not be given
};

struct PublishFailure {
    PublishProblem problem = PublishProblem::kWrite;
    std::uint32_t systemCode = 0;  // 0 when the system did not say no
    std::string words;             // with the path
};

// The task error code (TaskInfo.errorCode) of a problem, from codes.h.
std::int32_t TaskErrorOf(PublishProblem problem);

// Whether both paths lead to the same file, through whatever links. False when one of them is not there.
bool IsSameFile(const std::string& first, const std::string& second);

// Whether a file name (without its folder) is that of a temporary.
bool IsTemporaryName(std::string_view name);

// Why the system would give a file or folder of this path another name, or take it for a device, although it
// opens it; with words. Empty: it does not.
std::string WhyNoName(const std::string& path);

// Makes the names in folders, and their absence, last where the system can; one that is gone is passed over.
void SyncFolders(const std::vector<std::string>& folders);

// Removes the temporaries that dead processes left in a folder: those whose lock is to be had. Looks at the
// folder for half a second at most.
void RemoveLeftTemporaries(const std::string& folder);

class Publication {
  public:
    Publication() = default;
    ~Publication() { Discard(); }
    Publication(const Publication&) = delete;
    Publication& operator=(const Publication&) = delete;

    // Refuses a target that is one of the sources, one that is there unless `overwrite`, and a name that the
    // file system cannot give; removes temporaries that dead processes left in the folder; creates the
    // temporary. A target that replaces a plain file gets that one's access rights, as far as the system
    // allows.
    // Who makes many files in one folder has it cleaned with the first alone.
    enum class Cleaning { kDo, kLeave };
    std::optional<PublishFailure> Begin(const std::string& target, const std::vector<std::string>& sources,
                                        bool overwrite, Cleaning cleaning = Cleaning::kDo);

    // Writes all of it at that place of the temporary. The system is told now and then to begin writing to
    // the disk, so that the sync at the end is short.
    std::uint32_t WriteAt(std::uint64_t offset_bytes, const void* bytes, std::size_t count);
    // Has the system copy from the same place of the source, without the bytes passing through here. `copied`
    // is less than wanted only at the source's end. kNotOffloaded: it cannot between these two files.
    static constexpr std::uint32_t kNotOffloaded = 0xFFFFFFFF;
    std::uint32_t CopyFrom(const InputFile& source, std::uint64_t offset_bytes, std::uint64_t wanted_bytes,
                           std::uint64_t& copied_bytes);
    // For a file with holes: what is not written reads as zeros and takes no room where the file system can.
    std::uint32_t MakeSparse();
    std::uint32_t SetSize(std::uint64_t size_bytes);
    // The target gets the source's time of modification, and its access rights (on Windows its attributes).
    void TakeFactsOf(const InputFile& source);
    // Nobody else may read the file that is written until it has the facts of its source.
    void KeepPrivate();
    std::uint64_t SizeBytes() const { return m_sizeBytes; }
    // For libraries that read or write by name.
    const std::string& TemporaryPath() const { return m_temporary; }

    // What was written goes to the disk; nothing is written after it. Publish does it otherwise. After a
    // failure the temporary is gone.
    std::optional<PublishFailure> Sync();

    // For many small files, which are slow to sync one after the other: EndWriting when one is complete, has
    // the system begin to write it to the disk; SyncAll has all of them there, in the order given. Where the
    // file system is known to keep a sync of all it holds, that is one call.
    void EndWriting();
    static std::vector<std::optional<PublishFailure>> SyncAll(const std::vector<Publication*>& files);

    // Syncs the temporary, lets `check` look at it under its temporary name, gives it the target's name and
    // syncs the folder. Without overwriting, a target that has come into being meanwhile is left alone and
    // reported. After a failure the temporary is gone.
    using Check = std::function<bool(const std::string& temporaryPath)>;
    std::optional<PublishFailure> Publish(const Check& check);
    // The same, but the sync of the folder is the caller's (SyncFolders).
    std::optional<PublishFailure> GiveName(const Check& check);

    // Removes the temporary, when there still is one.
    void Discard();

  private:
    std::optional<PublishFailure> CreateTemporary(const std::string& folder, std::string_view name);
    std::optional<PublishFailure> Rename();
    std::optional<PublishFailure> Synced(std::uint32_t code);
    std::uint32_t RenameToFreeName();
    std::uint32_t ApplyFacts();
    void StartWriting();
    std::optional<PublishFailure> Fail(PublishProblem problem, std::uint32_t code, const std::string& what);

    std::string m_target;
    std::string m_temporary;  // empty: there is none
    bool m_overwrite = false;
    bool m_isSynced = false;
    std::intptr_t m_handle = -1;
    std::int64_t m_mode = -1;          // access rights of the file that is there, -1: there is none
    std::optional<FileFacts> m_facts;  // of the source, to be taken
    std::uint64_t m_sizeBytes = 0;
    std::uint64_t m_startedWritingBytes = 0;  // up to here the system was told to write
};

}  // namespace rq::task
