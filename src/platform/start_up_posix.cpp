#include "platform/start_up.h"

#include <fcntl.h>

#include <initializer_list>

#include "platform/files.h"

namespace rq::platform {

// open takes the lowest free number, so a closed stream gets its own back.
void OpenStandardStreams() {
    for (const int stream : {0, 1, 2}) {
        if (::fcntl(stream, F_GETFD) == -1) (void)!::open("/dev/null", O_RDWR);
    }
}

std::string LongModuleFileName() {
    return ModuleFileName();
}

bool ContainChildren() {
    return true;
}

}  // namespace rq::platform
