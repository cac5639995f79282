// Inside this room's Windows sources only: MFC's initialisation in a file of its own, since MFC's header must
// come before the system's and fixes how that one is read.
#pragma once

namespace rq::platform {

// AfxWinInit(instance, NULL, commandLine, 0).
bool StartMfc(void* instance, wchar_t* commandLine);

}  // namespace rq::platform
