#include "platform/found_process.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "platform/child_start_win.h"
#include "platform/end_request.h"
#include "platform/win_api.h"

namespace rq::platform {

namespace {

// What the number leads to. `process` is valid when somebody has it and may be looked at.
struct Sight {
    bool isNobody = false;
    WinHandle process;
};

Sight LookAt(std::uint64_t id, DWORD access) {
    Sight sight;
    sight.process = WinHandle(::OpenProcess(access | SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE,
                                            static_cast<DWORD>(id)));
    if (!sight.process.Valid()) {
        sight.isNobody = ::GetLastError() == ERROR_INVALID_PARAMETER;
    } else if (::WaitForSingleObject(sight.process.Get(), 0) == WAIT_OBJECT_0) {
        sight = {true, WinHandle()};
    }
    return sight;
}

std::string MarkOf(const WinHandle& process) {
    FILETIME created{}, other{};
    if (!process.Valid() || !::GetProcessTimes(process.Get(), &created, &other, &other, &other)) return {};
    return std::to_string((std::uint64_t{created.dwHighDateTime} << 32) | created.dwLowDateTime);
}

Presence PresenceOf(const Sight& sight, const std::string& mark) {
    if (sight.isNobody) return Presence::Gone;
    const std::string now = MarkOf(sight.process);
    if (now.empty() || mark.empty()) return Presence::Unknown;
    return now == mark ? Presence::There : Presence::Gone;
}

// One of which nobody can say now whether it is the right one. Its job is, if it can be opened.
class UnclearProcess final : public ChildProcess {
  public:
    UnclearProcess(std::uint64_t id, std::string mark, WinHandle job)
        : m_id(id), m_mark(std::move(mark)), m_job(std::move(job)) {}

    std::uint64_t Id() const override { return m_id; }
    void KillTree() override {
        if (m_job.Valid()) {
            ::TerminateJobObject(m_job.Get(), kKilledExitCode);
            return;
        }
        const Sight now = LookAt(m_id, PROCESS_TERMINATE);
        if (PresenceOf(now, m_mark) == Presence::There)
            ::TerminateProcess(now.process.Get(), kKilledExitCode);
    }
    void RequestEnd() override {
        if (LookForProcess(m_id, m_mark) == Presence::There) AskToEnd(static_cast<std::uint32_t>(m_id));
    }

    std::optional<ExitStatus> Wait(std::chrono::milliseconds timeout) override {
        using std::chrono::milliseconds;
        const auto end =
            std::chrono::steady_clock::now() + std::min<milliseconds>(timeout, std::chrono::hours(24));
        for (;;) {
            if (LookForProcess(m_id, m_mark) == Presence::Gone) return ExitStatus{false, 0, false};
            const auto left = std::chrono::ceil<milliseconds>(end - std::chrono::steady_clock::now());
            if (left <= milliseconds::zero()) return std::nullopt;
            std::this_thread::sleep_for(std::min(left, milliseconds(100)));
        }
    }

  private:
    const std::uint64_t m_id;
    const std::string m_mark;
    const WinHandle m_job;
};

}  // namespace

std::string ProcessMark(std::uint64_t id) {
    return MarkOf(LookAt(id, 0).process);
}

Presence LookForProcess(std::uint64_t id, const std::string& mark) {
    return PresenceOf(LookAt(id, 0), mark);
}

std::unique_ptr<ChildProcess> FindProcess(std::uint64_t id, const std::string& mark,
                                          const std::string& tree) {
    Sight sight = LookAt(id, PROCESS_TERMINATE);
    const Presence presence = PresenceOf(sight, mark);
    if (presence == Presence::Gone) return nullptr;
    WinHandle job;
    if (!tree.empty())
        job =
            WinHandle(::OpenJobObjectW(JOB_OBJECT_TERMINATE | JOB_OBJECT_QUERY, FALSE, WideOf(tree).c_str()));
    if (presence == Presence::Unknown) return std::make_unique<UnclearProcess>(id, mark, std::move(job));
    return MakeProcess(std::move(sight.process), static_cast<DWORD>(id), std::move(job));
}

}  // namespace rq::platform
