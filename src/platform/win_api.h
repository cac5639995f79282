// Inside this room's Windows sources only: the system's header without the macros that collide with our
// names, UTF-8 to and from its UTF-16 texts, its error numbers as an OsError, and a handle that closes
// itself.
#pragma once

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#undef NOUSER  // this room and only this one needs what other headers build on it
#include <windows.h>

#include <string>
#include <string_view>
#include <utility>

#include "platform/os_error.h"

namespace rq::platform {

// Damaged pieces become U+FFFD.
std::wstring WideOf(std::string_view utf8);
std::string Utf8Of(std::wstring_view wide);

// The path as the system takes it: separators are backslashes, and one whose full form is too long for the
// classic calls is made absolute and gets the prefix that lifts their limit. Not for a current directory or a
// library: those calls keep the limit.
std::wstring NativePath(std::string_view utf8);
// Backslashes only.
std::wstring NativeSeparators(std::string_view utf8);

// "The system cannot find the file specified", without a line end, in English where the system has it.
std::string SystemMessage(DWORD code);
// `what` names the call and its object: "open C:\x\y".
void SetOsError(OsError* error, DWORD code, const std::string& what);

class WinHandle {
  public:
    explicit WinHandle(HANDLE handle = nullptr)
        : m_handle(handle == INVALID_HANDLE_VALUE ? nullptr : handle) {}
    WinHandle(WinHandle&& other) noexcept : m_handle(std::exchange(other.m_handle, nullptr)) {}
    WinHandle& operator=(WinHandle&& other) noexcept {
        if (this != &other) {
            Close();
            m_handle = std::exchange(other.m_handle, nullptr);
        }
        return *this;
    }
    ~WinHandle() { Close(); }

    HANDLE Get() const { return m_handle; }
    bool Valid() const { return m_handle != nullptr; }
    void Close() {
        if (m_handle != nullptr) ::CloseHandle(m_handle);
        m_handle = nullptr;
    }

  private:
    HANDLE m_handle;
};

}  // namespace rq::platform
