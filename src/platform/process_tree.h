// Trees of processes that somebody else started, an earlier run of this program say, by the name in their
// ProcessSpec. Any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace rq::platform {

// The processes of the tree that run; nothing when that cannot be told now. On Linux those of this user that
// lead a process group: the first of the tree, and others only if they made groups of their own.
std::optional<std::vector<std::uint64_t>> FindTree(const std::string& tree);

// Ends what is left of the tree whose first process `leader` has ended: its process group, or its job. What
// is not of the tree, since the number is another group's now, is let be.
void EndTree(const std::string& tree, std::uint64_t leader);

}  // namespace rq::platform
