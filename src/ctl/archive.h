// An archive of files as one .tar.gz, made in memory. One thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/result.h"

namespace rq::ctl {

class Archive {
  public:
    // `time_s` (since 1970-01-01 UTC) is what every file in it gets.
    explicit Archive(std::int64_t time_s) : m_time_s(time_s) {}

    // `name` is a relative path with slashes, in ASCII, at most 100 bytes.
    void Add(std::string_view name, std::string_view bytes);
    // The archive's bytes; nothing can be added after that.
    Result<std::string> Finish();

  private:
    const std::int64_t m_time_s;
    std::string m_tar;
};

}  // namespace rq::ctl
