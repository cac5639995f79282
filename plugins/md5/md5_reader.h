// Reads one file from beginning to end and gives its digest. One for each thread that reads; it keeps its
// buffer and its digest from file to file.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "md5_items.h"
#include "plugin_common/digest.h"
#include "plugin_common/file.h"

namespace rq::md5 {

constexpr std::size_t kBuffer_bytes = 1u << 20;

// How reading one file ended; `failure` and `digest` both empty when it was given up.
struct Reading {
    std::optional<task::Md5Digest> digest;
    std::optional<Failure> failure;
};

class FileReader {
  public:
    FileReader() : m_buffer(new unsigned char[kBuffer_bytes]) {}

    // `goOn` is asked before each buffer, with the bytes that were read so far; false gives up.
    using GoOn = std::function<bool(std::int64_t read_bytes)>;
    Reading Read(const std::string& path, const GoOn& goOn);

  private:
    Reading ReadOpened(task::InputFile& input, const GoOn& goOn);

    task::Md5 m_md5;
    std::unique_ptr<unsigned char[]> m_buffer;
};

}  // namespace rq::md5
