#include "kit/os.h"

#include <io.h>
#include <time.h>

#include "kit/code_page_win.h"
#include "platform/process.h"
#include "platform/win_api.h"

// After the system's own header.
#include <aclapi.h>

namespace rq::kit {

const SystemCodes& Codes() {
    static const SystemCodes codes{ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND,       ERROR_PATH_NOT_FOUND,
                                   ERROR_FILE_EXISTS,    ERROR_ACCESS_DENIED,        ERROR_LOCK_VIOLATION,
                                   ERROR_BAD_FORMAT,     ERROR_FILENAME_EXCED_RANGE, 3};
    return codes;
}

std::string Words(int code) {
    return platform::SystemMessage(static_cast<DWORD>(code));
}

void TakeTimeZone() {
    ::_tzset();
}

std::string_view LineEnd() {
    return "\r\n";
}

bool IsWine() {
    return ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

unsigned AnsiCodePage() {
    return ::GetACP();
}

std::string NullDevice() {
    return "NUL";
}

std::string SystemLibraryName() {
    return "version.dll";
}

std::string RootName() {
    return "C:";
}

// Every entry that allows something names the owner, or the system itself, which may do everything anyway.
bool IsOwnersAlone(const std::filesystem::path& path) {
    PSID owner = nullptr;
    PACL list = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (::GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT,
                                OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, &owner, nullptr,
                                &list, nullptr, &descriptor) != ERROR_SUCCESS)
        return false;
    bool isAlone = list != nullptr && list->AceCount > 0;
    for (DWORD i = 0; isAlone && i < list->AceCount; ++i) {
        void* raw = nullptr;
        ::GetAce(list, i, &raw);
        auto* entry = static_cast<ACCESS_ALLOWED_ACE*>(raw);
        if (entry->Header.AceType == ACCESS_ALLOWED_ACE_TYPE && entry->Mask != 0)
            isAlone =
                ::EqualSid(&entry->SidStart, owner) || ::IsWellKnownSid(&entry->SidStart, WinLocalSystemSid);
    }
    ::LocalFree(descriptor);
    return isAlone;
}

bool IsInheritable(std::FILE* file) {
    DWORD flags = 0;
    const auto handle = reinterpret_cast<HANDLE>(::_get_osfhandle(::_fileno(file)));
    return ::GetHandleInformation(handle, &flags) && (flags & HANDLE_FLAG_INHERIT) != 0;
}

void EndProcess(std::uint64_t id) {
    const platform::WinHandle process(::OpenProcess(PROCESS_TERMINATE, FALSE, static_cast<DWORD>(id)));
    ::TerminateProcess(process.Get(), platform::kKilledExitCode);
}

std::string KilledWords() {
    return "with exit code 0xC000013A";
}

// A thread of its that begins where there is no code.
CrashSigns CrashProcess(std::uint64_t id) {
    constexpr DWORD kRights = PROCESS_CREATE_THREAD | PROCESS_QUERY_INFORMATION | PROCESS_VM_OPERATION |
                              PROCESS_VM_WRITE | PROCESS_VM_READ;
    const platform::WinHandle process(::OpenProcess(kRights, FALSE, static_cast<DWORD>(id)));
    auto* const nowhere = reinterpret_cast<LPTHREAD_START_ROUTINE>(std::uintptr_t{0x10});
    const platform::WinHandle thread(
        ::CreateRemoteThread(process.Get(), nullptr, 0, nowhere, nullptr, 0, nullptr));
    return {static_cast<int>(EXCEPTION_ACCESS_VIOLATION), "EXCEPTION_ACCESS_VIOLATION"};
}

std::string CrashReportEnding() {
    return ".dmp";
}

bool EndedByFault(int status) {
    const auto code = static_cast<DWORD>(status);
    return code == EXCEPTION_ACCESS_VIOLATION || code == EXCEPTION_STACK_OVERFLOW;
}

}  // namespace rq::kit
