// Source files of tasks, read once from beginning to end. The plug-ins' seam to the file system: no header of
// the operating system, paths in UTF-8. Codes are the system's own (errno; GetLastError on Windows), 0 is
// success. One thread at a time for each object.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace rq::task {

// Independent of the current directory.
bool IsAbsolutePath(std::string_view path);

// What the system says about a code: "No such file or directory". Any thread.
std::string SystemWords(std::uint32_t code);

// Size of a plain file; 0 for everything else and for what is not there.
std::uint64_t PlainFileSize(const std::string& path);

// What a copy takes over from its source.
struct FileFacts {
    std::int64_t modified_ns = 0;  // since the system's epoch
    std::uint32_t mode = 0;        // access rights; on Windows the attributes that a copy keeps
};

// What a code of the system means for a transfer.
enum class CodeClass { kOther, kNoRoom, kReadOnly, kAbsent };
CodeClass ClassOf(std::uint32_t code);

class InputFile {
  public:
    InputFile() = default;
    ~InputFile() { Close(); }
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    // Opens a plain file for reading in order. Folders, pipes and devices are refused, without waiting for a
    // pipe's writer.
    std::uint32_t Open(const std::string& path);
    // At most `wanted` bytes, fewer only at the end of the file; `got` is 0 there.
    std::uint32_t Read(void* buffer, std::size_t wanted, std::size_t& got);
    // The same, from any place; Read goes on where it was.
    std::uint32_t ReadAt(std::uint64_t offset_bytes, void* buffer, std::size_t wanted, std::size_t& got);
    // Size when it was opened.
    std::uint64_t Size() const { return m_before.size_bytes; }
    // Time of its last modification then, in nanoseconds since the system's epoch.
    std::int64_t Modified_ns() const { return m_before.modified_ns; }
    FileFacts FactsToKeep() const;
    // Whether it takes less room than its size, or is marked so.
    bool MayHaveHoles() const;
    // The first part at or behind `offset_bytes` that is no hole; begin is the size when there is none.
    std::uint32_t NextData(std::uint64_t offset_bytes, std::uint64_t& begin_bytes,
                           std::uint64_t& end_bytes) const;
    // Whether the path still leads to the file that was opened.
    bool IsAt(const std::string& path) const;
    std::intptr_t Handle() const { return m_handle; }
    // Lets the system forget what it keeps of the file in memory, as far as it can, so that it is read from
    // the disk.
    void ForgetCache() const;
    // Whether its size or time of modification is another than when it was opened. Neither a new name for the
    // file nor new rights count.
    bool Changed() const;
    void Close();

  private:
    struct Facts {
        std::uint64_t size_bytes = 0;
        std::int64_t modified_ns = 0;  // since the system's epoch
        bool operator==(const Facts& other) const {
            return size_bytes == other.size_bytes && modified_ns == other.modified_ns;
        }
    };
    // False when the system cannot tell.
    bool Look(Facts& facts) const;

    std::intptr_t m_handle = -1;
    Facts m_before;
};

}  // namespace rq::task
