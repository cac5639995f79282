// The performance counter, which the standard library's clock reads, runs on while the machine is suspended.
// Windows 10 has a clock of the same resolution that does not; what is older falls back on the first.
#include "platform/steady_time.h"
#include "platform/win_api.h"

namespace rq::platform {
namespace {

using Query = void(WINAPI*)(ULONGLONG* time_100ns);

Query FindQuery() {
    const HMODULE library = ::GetModuleHandleW(L"kernelbase.dll");
    if (library == nullptr) return nullptr;
    return reinterpret_cast<Query>(
        reinterpret_cast<void*>(::GetProcAddress(library, "QueryUnbiasedInterruptTimePrecise")));
}

}  // namespace

std::chrono::steady_clock::time_point SteadyNow() {
    static const Query query = FindQuery();
    if (query == nullptr) return std::chrono::steady_clock::now();
    ULONGLONG time_100ns = 0;
    query(&time_100ns);
    using HundredNanoseconds = std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>;
    return std::chrono::steady_clock::time_point(
        std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            HundredNanoseconds(static_cast<std::int64_t>(time_100ns))));
}

}  // namespace rq::platform
