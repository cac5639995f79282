#include "platform/start_up.h"

#include <io.h>

#include <cstdio>

#include "platform/win_api.h"

namespace rq::platform {

namespace {

void OpenWhenClosed(DWORD which, std::FILE* stream, const wchar_t* mode) {
    const HANDLE handle = ::GetStdHandle(which);
    if (handle != nullptr && handle != INVALID_HANDLE_VALUE) return;
    if (::_wfreopen(L"NUL", mode, stream) == nullptr) return;
    ::SetStdHandle(which, reinterpret_cast<HANDLE>(::_get_osfhandle(::_fileno(stream))));
}

}  // namespace

void OpenStandardStreams() {
    OpenWhenClosed(STD_INPUT_HANDLE, stdin, L"r");
    OpenWhenClosed(STD_OUTPUT_HANDLE, stdout, L"w");
    OpenWhenClosed(STD_ERROR_HANDLE, stderr, L"w");
}

std::string LongModuleFileName() {
    constexpr DWORD kRoom = 2048;
    wchar_t buffer[kRoom];
    const DWORD length = ::GetModuleFileNameW(nullptr, buffer, kRoom);
    return Utf8Of(std::wstring_view(buffer, length == kRoom ? kRoom - 1 : length));  // cut: with its NUL
}

// The job's only handle is this process's and is never closed: the system closes it when the process is gone.
bool ContainChildren() {
    const HANDLE job = ::CreateJobObjectW(nullptr, nullptr);
    if (job == nullptr) return false;
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags =
        JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE | JOB_OBJECT_LIMIT_BREAKAWAY_OK;
    return ::SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof limits) &&
           ::AssignProcessToJobObject(job, ::GetCurrentProcess());
}

}  // namespace rq::platform
