// MFC's initialisation, in a file of its own: MFC's header must come before the system's and fixes how that
// one is read.
#if defined(_MSC_VER) && __has_include(<afxwin.h>)

#undef NOUSER
#undef NOGDI
#include <afxwin.h>

// The one application object that MFC asks for. Nothing of it is used.
static CWinApp theApp;

#else

#include "platform/win_api.h"

namespace {

// What the stand-in keeps, as MFC does for its getters.
struct ModuleState {
    HINSTANCE instance = nullptr;
    const wchar_t* commandLine = nullptr;
    int show = 0;
};
ModuleState g_state;

// A stand-in for MFC's function, for compilers without MFC, with what a console program sees of it: the
// instance and the command line are kept, and a missing disk or a library that cannot be loaded is told by
// the failing call and not by a message box.
BOOL AfxWinInit(HINSTANCE instance, HINSTANCE /*previous*/, wchar_t* commandLine, int show) {
    if (instance == nullptr) return FALSE;
    ::SetErrorMode(::SetErrorMode(0) | SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
    g_state = {instance, commandLine, show};
    return TRUE;
}

}  // namespace

#endif

#include "platform/start_up.h"

namespace rq::platform {

bool InitialiseMfc(void* moduleHandle) {
    return ::AfxWinInit(static_cast<HINSTANCE>(moduleHandle), nullptr, ::GetCommandLineW(), 0) != FALSE;
}

}  // namespace rq::platform
