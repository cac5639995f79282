#include "platform/process.h"

#include <algorithm>

#include "platform/child_start_win.h"
#include "platform/end_request.h"
#include "platform/win_api.h"

namespace rq::platform {

namespace {

using std::chrono::milliseconds;

constexpr DWORD kKilled = kKilledExitCode;
// Exit codes from here on are those of unhandled exceptions, and of ends from outside.
constexpr DWORD kFirstExceptionCode = 0xC0000000;

class WinChild final : public ChildProcess {
  public:
    WinChild(WinHandle process, DWORD id, WinHandle job)
        : m_id(id), m_process(std::move(process)), m_job(std::move(job)) {}

    std::uint64_t Id() const override { return m_id; }
    void KillTree() override {
        if (m_job.Valid())
            ::TerminateJobObject(m_job.Get(), kKilled);
        else
            ::TerminateProcess(m_process.Get(), kKilled);  // one that was found without its job
    }

    void RequestEnd() override {
        if (AskToEnd(m_id)) return;
        ::GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT,
                                   m_id);  // it leads a group; reaches it in this console only
    }

    std::optional<ExitStatus> Wait(milliseconds timeout) override {
        const milliseconds most = std::chrono::hours(24);
        const auto left = std::clamp(timeout, milliseconds::zero(), most);
        if (::WaitForSingleObject(m_process.Get(), static_cast<DWORD>(left.count())) != WAIT_OBJECT_0)
            return std::nullopt;
        DWORD code = 0;
        ::GetExitCodeProcess(m_process.Get(), &code);
        return ExitStatus{code >= kFirstExceptionCode, static_cast<int>(code)};
    }

  private:
    const DWORD m_id;
    const WinHandle m_process;
    const WinHandle m_job;
};

bool OpenStream(ProcessSpec::Stream kind, DWORD standardHandle, const std::string& file, WinHandle& to,
                OsError* error) {
    if (kind == ProcessSpec::Stream::Inherit) {
        to = InheritableStream(standardHandle);
        return true;
    }
    if (kind == ProcessSpec::Stream::Null) {
        to = InheritableNull();
    } else {
        SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
        const bool reading = standardHandle == STD_INPUT_HANDLE;
        const DWORD append = FILE_APPEND_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE;
        to = WinHandle(::CreateFileW(NativePath(file).c_str(), reading ? GENERIC_READ : append,
                                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, &inheritable,
                                     reading ? OPEN_EXISTING : OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    }
    if (to.Valid()) return true;
    SetOsError(error, ::GetLastError(), "open " + (kind == ProcessSpec::Stream::Null ? "NUL" : file));
    return false;
}

// Its children may leave it only as StartDetached does.
WinHandle MakeJob(const std::string& name, OsError* error) {
    WinHandle job(::CreateJobObjectW(nullptr, name.empty() ? nullptr : WideOf(name).c_str()));
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_BREAKAWAY_OK;
    if (job.Valid() &&
        ::SetInformationJobObject(job.Get(), JobObjectExtendedLimitInformation, &limits, sizeof limits))
        return job;
    SetOsError(error, ::GetLastError(), "create a job object");
    return WinHandle();
}

// A window for nobody: a child whose streams all go elsewhere gets no console.
DWORD ConsoleFlag(const ProcessSpec& spec) {
    for (const auto stream : {spec.input, spec.output, spec.errors}) {
        if (stream == ProcessSpec::Stream::Inherit) return 0;
    }
    return CREATE_NO_WINDOW;
}

}  // namespace

std::unique_ptr<ChildProcess> ChildProcess::Start(const ProcessSpec& spec, OsError* error) {
    WinHandle input, output, errors;
    if (!OpenStream(spec.input, STD_INPUT_HANDLE, spec.inputFile, input, error)) return nullptr;
    if (!OpenStream(spec.output, STD_OUTPUT_HANDLE, spec.outputFile, output, error)) return nullptr;
    if (!OpenStream(spec.errors, STD_ERROR_HANDLE, spec.errorsFile, errors, error)) return nullptr;
    WinHandle job = MakeJob(spec.tree, error);
    if (!job.Valid()) return nullptr;

    ProcessStart start;
    start.program = NativeSeparators(spec.program);
    std::vector<std::string> words{spec.program};
    words.insert(words.end(), spec.arguments.begin(), spec.arguments.end());
    start.commandLine = QuoteCommandLine(words);
    start.directory = NativeSeparators(spec.directory);
    start.environment = EnvironmentBlock(spec.environment);
    start.input = input.Get();
    start.output = output.Get();
    start.errors = errors.Get();
    start.job = job.Get();
    start.flags = CREATE_NEW_PROCESS_GROUP | ConsoleFlag(spec);

    // The system's number for a missing program and a missing folder may be the same: the folder comes first.
    if (!spec.directory.empty() && ::GetFileAttributesW(start.directory.c_str()) == INVALID_FILE_ATTRIBUTES) {
        SetOsError(error, ::GetLastError(), "chdir " + spec.directory);
        return nullptr;
    }
    StartedProcess started;
    if (!CreateWithStreams(start, started)) {
        SetOsError(error, ::GetLastError(), "start " + spec.program);
        return nullptr;
    }
    // A job's name goes with its last handle: this one stays for as long as the child.
    HANDLE kept = nullptr;
    if (!spec.tree.empty())
        ::DuplicateHandle(::GetCurrentProcess(), job.Get(), started.process.Get(), &kept, 0, FALSE,
                          DUPLICATE_SAME_ACCESS);
    return MakeProcess(std::move(started.process), started.id, std::move(job));
}

std::unique_ptr<ChildProcess> MakeProcess(WinHandle process, DWORD id, WinHandle job) {
    return std::make_unique<WinChild>(std::move(process), id, std::move(job));
}

std::uint64_t CurrentProcessId() {
    return ::GetCurrentProcessId();
}

std::uint64_t CurrentThreadId() {
    return ::GetCurrentThreadId();
}

bool ProcessRuns(std::uint64_t id) {
    const WinHandle process(::OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(id)));
    return process.Valid() && ::WaitForSingleObject(process.Get(), 0) == WAIT_TIMEOUT;
}

}  // namespace rq::platform
