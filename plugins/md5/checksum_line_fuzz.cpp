// A line of a checksum file, any bytes: what is read is written as a line that reads the same.
#include "checksum_line.h"
#include "fuzz/checks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
    using rq::fuzz::Require;
    const std::string_view text(reinterpret_cast<const char*>(bytes), count);
    const std::string_view line = text.substr(0, text.find('\n'));  // as files are split
    rq::md5::Checksum first;
    if (!rq::md5::ParseChecksum(line, first)) return 0;
    Require(!first.name.empty(), "a name that is read is not empty", line);
    std::string written = rq::md5::ChecksumLine(first.name, first.digest);
    Require(written.find('\n') == written.size() - 1, "a line is one line", written);
    written.pop_back();
    rq::md5::Checksum second;
    Require(rq::md5::ParseChecksum(written, second), "a line that is written can be read", written);
    Require(second.name == first.name && second.digest == first.digest, "it reads the same", written);
    return 0;
}
