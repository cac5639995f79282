// The crash-dump library. The worker loads it and calls nothing in it; an installation may put another one of
// the same name in its place. What it contributes comes from its being loaded: each thread that starts from
// then on has room on its stack for the crash filter, so that an overflow is reported too. (On Linux the
// program itself sees to that, platform/thread_start_posix.cpp, and this library does nothing.) The name
// below lets a person see with nm or a debugger which one is loaded.
#if defined(_WIN32)
#include <windows.h>

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, void*) {
    constexpr ULONG kRoom_bytes = 65536;
    if (reason == DLL_PROCESS_ATTACH || reason == DLL_THREAD_ATTACH) {
        ULONG room = kRoom_bytes;
        ::SetThreadStackGuarantee(&room);  // where it is refused, that thread's overflow goes unreported
    }
    return TRUE;
}
#endif

extern "C" const char* CrashDumpName() {
    return "CrashDump 1.13.0";
}
