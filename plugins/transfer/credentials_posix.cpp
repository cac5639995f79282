#include <sys/stat.h>
#include <unistd.h>

#include "credentials.h"

namespace rq::transfer {

bool IsPrivateFile(const std::string& path) {
    struct stat facts {};
    return ::stat(path.c_str(), &facts) == 0 && S_ISREG(facts.st_mode) && facts.st_uid == ::geteuid() &&
           (facts.st_mode & 077) == 0;
}

}  // namespace rq::transfer
