#include "platform/end_request.h"

#include <thread>

#include "platform/private_access.h"
#include "platform/win_api.h"

namespace rq::platform {

namespace {

std::wstring EventName(DWORD processId) {
    return L"Local\\RQWorker.End." + std::to_wstring(processId);
}

class WinEndRequests;
// For the console handler, which the system gives nothing of ours.
WinEndRequests* g_listener = nullptr;
SRWLOCK g_lock = SRWLOCK_INIT;

class WinEndRequests final : public EndRequests {
  public:
    WinEndRequests(std::function<void()> onRequest, WinHandle asked, WinHandle over)
        : m_onRequest(std::move(onRequest)), m_asked(std::move(asked)), m_over(std::move(over)) {
        ::AcquireSRWLockExclusive(&g_lock);
        g_listener = this;
        ::ReleaseSRWLockExclusive(&g_lock);
        ::SetConsoleCtrlHandler(&OnConsole, TRUE);
        m_thread = std::thread([this] { Hear(); });
    }
    ~WinEndRequests() override {
        ::SetConsoleCtrlHandler(&OnConsole, FALSE);
        ::AcquireSRWLockExclusive(&g_lock);
        g_listener = nullptr;
        ::ReleaseSRWLockExclusive(&g_lock);
        ::SetEvent(m_over.Get());
        m_thread.join();
    }
    WinEndRequests(const WinEndRequests&) = delete;
    WinEndRequests& operator=(const WinEndRequests&) = delete;

  private:
    void Hear() {
        const HANDLE both[] = {m_over.Get(), m_asked.Get()};
        while (::WaitForMultipleObjects(2, both, FALSE, INFINITE) == WAIT_OBJECT_0 + 1) m_onRequest();
    }

    static BOOL WINAPI OnConsole(DWORD kind) {
        ::AcquireSRWLockExclusive(&g_lock);
        const bool isHeard = g_listener != nullptr;
        if (isHeard) ::SetEvent(g_listener->m_asked.Get());
        ::ReleaseSRWLockExclusive(&g_lock);
        if (!isHeard) return FALSE;
        // The process is ended when this returns, or by the system after some seconds: the rest of it ends in
        // good order meanwhile.
        if (kind != CTRL_C_EVENT && kind != CTRL_BREAK_EVENT) ::Sleep(INFINITE);
        return TRUE;
    }

    const std::function<void()> m_onRequest;
    const WinHandle m_asked;
    const WinHandle m_over;
    std::thread m_thread;
};

}  // namespace

std::unique_ptr<EndRequests> EndRequests::Listen(std::function<void()> onRequest) {
    PrivateAccess access;
    WinHandle asked(
        ::CreateEventW(access.Attributes(), FALSE, FALSE, EventName(::GetCurrentProcessId()).c_str()));
    WinHandle over(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!asked.Valid() || !over.Valid()) return nullptr;
    return std::make_unique<WinEndRequests>(std::move(onRequest), std::move(asked), std::move(over));
}

bool AskToEnd(std::uint64_t processId) {
    const WinHandle asked(
        ::OpenEventW(EVENT_MODIFY_STATE, FALSE, EventName(static_cast<DWORD>(processId)).c_str()));
    return asked.Valid() && ::SetEvent(asked.Get());
}

}  // namespace rq::platform
