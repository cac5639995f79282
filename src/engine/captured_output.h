// The file with what a worker wrote to its standard output and error: kept within a size while the worker
// appends to it, and turned into UTF-8 when it has ended. Any thread; the file's errors are nobody's harm and
// are ignored.
#pragma once

#include <cstdint>
#include <string>

namespace rq::engine {

// Once the file has more than twice `limit_bytes`, only its first half of the limit stays, and a line says
// how much is left out; what the worker writes from then on comes behind.
void BoundOutput(const std::string& file, std::uint64_t limit_bytes);

// Of a file over the limit the first and the last half stay, with such a line between them. Lines that are
// not UTF-8 are taken for GBK, the encoding of a worker's console texts.
void ConcludeOutput(const std::string& file, std::uint64_t limit_bytes);

}  // namespace rq::engine
