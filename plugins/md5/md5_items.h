// The files of one MD5 task, one after the other: what the task text lists, what its folders hold, and what
// its checksum files name. Gone through twice, to measure and to work; only the folders that are open at the
// time and one checksum file are in memory.
//
// A folder is gone through in the order of the names' bytes, a folder in it at its name's place. Links below
// it are not followed: they are left out and counted, and so are pipes, devices and the temporaries of files
// that are being made. One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "checksum_line.h"
#include "md5_task.h"
#include "plugin_common/folder.h"

namespace rq::md5 {

constexpr std::size_t kMaxChecksumFile_bytes = 64u << 20;
constexpr std::size_t kMaxFolderDepth = 512;

struct Failure {
    std::uint32_t systemCode = 0;
    std::int32_t errorCode = 0;
    std::string words;
};

struct Item {
    std::string path;
    std::optional<task::Md5Digest> expected;
    std::optional<Failure>
        failure;  // there is no file to be read here: a folder or checksum file that failed
};

class ItemSource {
  public:
    explicit ItemSource(const Md5Task& task) : m_task(task) {}

    // False at the end.
    bool Next(Item& item);
    // Asked before each entry of a folder; false ends its list, for a task that is to stop.
    void SetGoOn(std::function<bool()> goOn) { m_goOn = std::move(goOn); }
    std::size_t LeftOut() const { return m_leftOut; }
    // The temporary of the file that the task itself makes: left out, and not counted.
    void SetOwnTemporary(std::string path) { m_ownTemporary = std::move(path); }

  private:
    struct Level {
        std::string path;
        std::vector<task::FolderEntry> entries;
        std::size_t next = 0;
    };

    bool Open(const TaskFile& file, Item& item);
    bool OpenFolder(const std::string& path, Item& item);
    bool NextInFolders(Item& item);
    bool OpenChecksums(const std::string& path, Item& item);
    bool NextChecksum(Item& item);
    bool IsOwnOutput(const std::string& path) const;

    const Md5Task& m_task;
    std::size_t m_next = 0;
    std::vector<Level> m_levels;  // the open folder is the last
    std::string m_checksums;      // what is left of the checksum file begins at m_checksumsAt
    std::size_t m_checksumsAt = 0;
    std::string m_checksumsFolder;
    std::size_t m_leftOut = 0;
    std::string m_ownTemporary;
    std::function<bool()> m_goOn;
};

}  // namespace rq::md5
