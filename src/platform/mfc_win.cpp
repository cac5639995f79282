#if defined(_MSC_VER) && __has_include(<afxwin.h>)

#undef NOUSER
#undef NOGDI
#include <afxwin.h>

#include "platform/mfc_win.h"

namespace rq::platform {

// The one application object that MFC asks for. Nothing of it is used.
static CWinApp theApp;

bool StartMfc(void* instance, wchar_t* commandLine) {
    return ::AfxWinInit(static_cast<HINSTANCE>(instance), nullptr, commandLine, 0) != FALSE;
}

}  // namespace rq::platform

#else

#include "platform/mfc_win.h"
#include "platform/win_api.h"

namespace rq::platform {

namespace {

// A stand-in for MFC's function, for compilers without MFC, with what a console program sees of it: the
// instance and the command line are kept, and a missing disk or a library that cannot be loaded is told by
// the failing call and not by a message box.
struct ModuleState {
    HINSTANCE instance = nullptr;
    const wchar_t* commandLine = nullptr;
    int show = 0;
};
ModuleState g_state;

BOOL AfxWinInit(HINSTANCE instance, HINSTANCE /*previous*/, wchar_t* commandLine, int show) {
    if (instance == nullptr) return FALSE;
    ::SetErrorMode(::SetErrorMode(0) | SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
    g_state = {instance, commandLine, show};
    return TRUE;
}

}  // namespace

bool StartMfc(void* instance, wchar_t* commandLine) {
    return AfxWinInit(static_cast<HINSTANCE>(instance), nullptr, commandLine, 0) != FALSE;
}

}  // namespace rq::platform

#endif
