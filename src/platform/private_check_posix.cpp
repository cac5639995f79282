#include "platform/private_check.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "platform/posix_error.h"

namespace rq::platform {

namespace {

std::optional<std::string> RightsTrouble(const std::string& path, const struct stat& info, const char* mode) {
    if (info.st_uid != ::geteuid())
        return path + " belongs to another user (number " + std::to_string(info.st_uid) +
               ", this process is number " + std::to_string(::geteuid()) + "); give it to this one: chown " +
               std::to_string(::geteuid()) + " '" + path + "'";
    if ((info.st_mode & 077) == 0) return std::nullopt;
    char octal[8];
    std::snprintf(octal, sizeof octal, "%04o", static_cast<unsigned>(info.st_mode & 07777));
    return path + " can be used by other users (its mode is " + octal + "); make it private: chmod " + mode +
           " '" + path + "'";
}

std::string Missing(const std::string& path) {
    OsError error;
    SetOsError(&error, errno, "stat " + path);
    return error.message;
}

}  // namespace

std::optional<std::string> FilePrivacyTrouble(const std::string& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) return Missing(path);
    if (!S_ISREG(info.st_mode)) {
        return path + " is " + (S_ISLNK(info.st_mode) ? "a link" : "no regular file") +
               "; put a file of this user's in its place, or remove it";
    }
    return RightsTrouble(path, info, "600");
}

std::optional<std::string> FolderPrivacyTrouble(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return Missing(path);
    return RightsTrouble(path, info, "700");
}

}  // namespace rq::platform
