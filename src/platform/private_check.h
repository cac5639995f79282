// Whether a secret is one: who may use a file or folder besides the user of this process. Any thread.
#pragma once

#include <optional>
#include <string>

namespace rq::platform {

// Why the file (a regular one, no link) is not this user's alone, in words with a remedy; nothing when it is.
// One that is not there or cannot be looked at is a trouble, too.
std::optional<std::string> FilePrivacyTrouble(const std::string& path);

// The same of a folder, which a link may lead to.
std::optional<std::string> FolderPrivacyTrouble(const std::string& path);

}  // namespace rq::platform
