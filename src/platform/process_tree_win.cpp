#include "platform/process_tree.h"

#include "platform/process.h"
#include "platform/win_api.h"

namespace rq::platform {

namespace {

WinHandle OpenJob(const std::string& tree) {
    return WinHandle(::OpenJobObjectW(JOB_OBJECT_TERMINATE | JOB_OBJECT_QUERY, FALSE, WideOf(tree).c_str()));
}

}  // namespace

// That there is no job of the name proves nothing: names are of a logon session, and this may be another one.
std::optional<std::vector<std::uint64_t>> FindTree(const std::string& tree) {
    const WinHandle job = OpenJob(tree);
    if (!job.Valid()) return std::nullopt;
    constexpr std::size_t kMost = 256;
    struct {
        JOBOBJECT_BASIC_PROCESS_ID_LIST list;
        ULONG_PTR more[kMost];
    } ids{};
    if (!::QueryInformationJobObject(job.Get(), JobObjectBasicProcessIdList, &ids, sizeof ids, nullptr))
        return std::nullopt;
    std::vector<std::uint64_t> found;
    const ULONG_PTR* id = ids.list.ProcessIdList;
    for (DWORD i = 0; i < ids.list.NumberOfProcessIdsInList; ++i) found.push_back(id[i]);
    return found;
}

void EndTree(const std::string& tree, std::uint64_t /*leader*/) {
    const WinHandle job = OpenJob(tree);
    if (job.Valid()) ::TerminateJobObject(job.Get(), kKilledExitCode);
}

}  // namespace rq::platform
