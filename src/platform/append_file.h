// A file that several threads and processes append to at once. Each Append is one call of the operating
// system at the end of the file as it is at that moment (O_APPEND, FILE_APPEND_DATA), so that blocks of whole
// lines never mix; on Windows writers also take turns, each for at most about 0.2 s, since that end is not
// exact everywhere. Paths are UTF-8. Any thread; Append and Size may also be called in a crash handler (no
// lock of this process, no allocation).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "platform/os_error.h"

namespace rq::platform {

class AppendFile {
  public:
    // Opens the file for appending, makes it when it is missing; its folder must be there. Not inherited by
    // child processes; others may rename or delete the file meanwhile. Null on failure.
    static std::unique_ptr<AppendFile> Open(const std::string& path, OsError* error = nullptr);
    virtual ~AppendFile() = default;

    // False when not everything could be written (a full disk).
    virtual bool Append(std::string_view bytes) noexcept = 0;
    // Bytes in the file now, whoever wrote them.
    virtual std::uint64_t Size() noexcept = 0;
};

}  // namespace rq::platform
