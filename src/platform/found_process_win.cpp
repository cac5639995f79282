#include "platform/found_process.h"

#include <algorithm>

#include "platform/child_start_win.h"
#include "platform/end_request.h"
#include "platform/win_api.h"

namespace rq::platform {

namespace {

WinHandle OpenRunning(std::uint64_t id, DWORD access) {
    WinHandle process(::OpenProcess(access | SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE,
                                    static_cast<DWORD>(id)));
    if (!process.Valid() || ::WaitForSingleObject(process.Get(), 0) != WAIT_TIMEOUT) return WinHandle();
    return process;
}

std::string MarkOf(const WinHandle& process) {
    FILETIME created{}, other{};
    if (!process.Valid() || !::GetProcessTimes(process.Get(), &created, &other, &other, &other)) return {};
    return std::to_string((std::uint64_t{created.dwHighDateTime} << 32) | created.dwLowDateTime);
}

}  // namespace

std::string ProcessMark(std::uint64_t id) {
    return MarkOf(OpenRunning(id, 0));
}

std::unique_ptr<ChildProcess> FindProcess(std::uint64_t id, const std::string& mark,
                                          const std::string& tree) {
    WinHandle process = OpenRunning(id, PROCESS_TERMINATE);
    if (mark.empty() || MarkOf(process) != mark) return nullptr;
    WinHandle job;
    if (!tree.empty())
        job =
            WinHandle(::OpenJobObjectW(JOB_OBJECT_TERMINATE | JOB_OBJECT_QUERY, FALSE, WideOf(tree).c_str()));
    return MakeProcess(std::move(process), static_cast<DWORD>(id), std::move(job));
}

}  // namespace rq::platform
