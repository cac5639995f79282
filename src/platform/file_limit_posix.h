// What a new process does with the raised limit of files. Between fork and exec.
#pragma once

namespace rq::platform {

// Takes back what RaiseFileLimit did, if it was called: a program may count on the usual limit, close as many
// descriptors, or use select().
void RestoreFileLimit();

}  // namespace rq::platform
