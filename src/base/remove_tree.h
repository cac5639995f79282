// Removing a folder with all that is in it. Any thread.
#pragma once

#include <filesystem>

namespace rq {

// Links are removed, not followed. What cannot be removed (on Windows a file that is open) stays and is not
// waited for: std::filesystem::remove_all may go round for ever over it there.
void RemoveTree(const std::filesystem::path& folder) noexcept;

}  // namespace rq
