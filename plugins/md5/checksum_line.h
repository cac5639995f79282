// The lines of checksum files, as md5sum writes them. Names are bytes, relative to the file's folder or
// absolute, with '/' between their parts. Pure; any thread.
#pragma once

#include <string>
#include <string_view>

#include "plugin_common/digest.h"

namespace rq::md5 {

struct Checksum {
    std::string name;
    task::Md5Digest digest{};
};

// "<32 digits>  name", "<32 digits> *name" or "MD5 (name) = <32 digits>", without the line's end. With a
// backslash before the line, "\\", "\n" and "\r" in the name stand for a backslash and line ends. Blanks
// before it all are passed over. False for any other line, and for a name with a zero byte.
bool ParseChecksum(std::string_view line, Checksum& checksum);

// A line in the first form, with its end.
std::string ChecksumLine(std::string_view name, const task::Md5Digest& digest);

std::string HexOf(const task::Md5Digest& digest);

}  // namespace rq::md5
