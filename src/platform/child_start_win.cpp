#include "platform/child_start_win.h"

#include <algorithm>
#include <memory>

// Older headers lack it: the job objects that a new process is created in.
#ifndef PROC_THREAD_ATTRIBUTE_JOB_LIST
#define PROC_THREAD_ATTRIBUTE_JOB_LIST 0x0002000D
#endif

namespace rq::platform {

namespace {

// The system's list of attributes of a new process.
class AttributeList {
  public:
    explicit AttributeList(DWORD count) {
        SIZE_T size = 0;
        ::InitializeProcThreadAttributeList(nullptr, count, 0, &size);
        m_memory = std::make_unique<char[]>(size);
        if (!::InitializeProcThreadAttributeList(Get(), count, 0, &size)) m_memory.reset();
    }
    ~AttributeList() {
        if (m_memory) ::DeleteProcThreadAttributeList(Get());
    }
    AttributeList(const AttributeList&) = delete;
    AttributeList& operator=(const AttributeList&) = delete;

    LPPROC_THREAD_ATTRIBUTE_LIST Get() const {
        return reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(m_memory.get());
    }
    // `value` must live as long as this list.
    bool Add(DWORD_PTR attribute, void* value, SIZE_T size) {
        return m_memory && ::UpdateProcThreadAttribute(Get(), 0, attribute, value, size, nullptr, nullptr);
    }

  private:
    std::unique_ptr<char[]> m_memory;
};

void AppendQuoted(std::wstring& line, const std::wstring& word) {
    if (!word.empty() && word.find_first_of(L" \t\n\v\"") == std::wstring::npos) {
        line += word;
        return;
    }
    line += L'"';
    std::size_t backslashes = 0;
    for (const wchar_t c : word) {
        if (c == L'\\') {
            ++backslashes;
            continue;
        }
        // Backslashes mean themselves unless a quote follows them.
        line.append(c == L'"' ? 2 * backslashes + 1 : backslashes, L'\\');
        backslashes = 0;
        line += c;
    }
    line.append(2 * backslashes, L'\\');
    line += L'"';
}

// As the system compares names of variables.
int CompareNames(std::wstring_view first, std::wstring_view second) {
    return ::CompareStringOrdinal(first.data(), static_cast<int>(first.size()), second.data(),
                                  static_cast<int>(second.size()), TRUE);
}

// A name may begin with "=" (a drive's current directory).
std::wstring_view NameOf(std::wstring_view entry) {
    return entry.substr(0, entry.find(L'=', 1));
}

std::vector<std::wstring> OwnEnvironment() {
    std::vector<std::wstring> entries;
    wchar_t* block = ::GetEnvironmentStringsW();
    if (block == nullptr) return entries;
    for (const wchar_t* at = block; *at != L'\0'; at += entries.back().size() + 1) entries.emplace_back(at);
    ::FreeEnvironmentStringsW(block);
    return entries;
}

SECURITY_ATTRIBUTES Inheritable() {
    return {sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
}

bool Create(const ProcessStart& start, AttributeList& attributes, bool inherit, DWORD flags,
            PROCESS_INFORMATION& made) {
    STARTUPINFOEXW info{};
    info.StartupInfo.cb = sizeof info;
    info.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    info.StartupInfo.hStdInput = start.input;
    info.StartupInfo.hStdOutput = start.output;
    info.StartupInfo.hStdError = start.errors;
    if (start.isShown) {
        info.StartupInfo.dwFlags |= STARTF_USESHOWWINDOW;
        info.StartupInfo.wShowWindow = SW_SHOWNORMAL;
    }
    info.lpAttributeList = attributes.Get();
    std::wstring commandLine = start.commandLine;  // the system writes into it
    std::wstring environment = start.environment;
    return ::CreateProcessW(start.program.empty() ? nullptr : start.program.c_str(), commandLine.data(),
                            nullptr, nullptr, inherit ? TRUE : FALSE, flags,
                            environment.empty() ? nullptr : environment.data(),
                            start.directory.empty() ? nullptr : start.directory.c_str(), &info.StartupInfo,
                            &made) != FALSE;
}

// For systems that do not know the attribute (before Windows 10): the process was made suspended, is put into
// its job, and let go. Nothing of it runs outside, but it stays there when this process is killed in between.
bool AssignAndResume(HANDLE job, HANDLE process, HANDLE thread) {
    if (::AssignProcessToJobObject(job, process) && ::ResumeThread(thread) != static_cast<DWORD>(-1))
        return true;
    const DWORD code = ::GetLastError();
    ::TerminateProcess(process, 1);
    ::SetLastError(code);
    return false;
}

}  // namespace

bool CreateWithStreams(const ProcessStart& start, StartedProcess& started) {
    std::vector<HANDLE> streams;
    for (const HANDLE stream : {start.input, start.output, start.errors}) {
        if (stream != nullptr && std::find(streams.begin(), streams.end(), stream) == streams.end())
            streams.push_back(stream);
    }
    AttributeList attributes(2);
    if (!streams.empty() &&
        !attributes.Add(PROC_THREAD_ATTRIBUTE_HANDLE_LIST, streams.data(), streams.size() * sizeof(HANDLE)))
        return false;
    // The system makes it in its job, so that not even a parent that is killed meanwhile leaves it outside.
    HANDLE job = start.job;
    const bool isBornInJob =
        job != nullptr && attributes.Add(PROC_THREAD_ATTRIBUTE_JOB_LIST, &job, sizeof job);
    const bool isAssigned = job != nullptr && !isBornInJob;
    const DWORD flags = start.flags | CREATE_UNICODE_ENVIRONMENT | EXTENDED_STARTUPINFO_PRESENT |
                        (isAssigned ? CREATE_SUSPENDED : 0);
    PROCESS_INFORMATION made{};
    if (!Create(start, attributes, !streams.empty(), flags, made)) return false;
    const WinHandle thread(made.hThread);
    started.process = WinHandle(made.hProcess);
    started.id = made.dwProcessId;
    return !isAssigned || AssignAndResume(job, made.hProcess, made.hThread);
}

std::wstring QuoteCommandLine(const std::vector<std::string>& words) {
    std::wstring line;
    for (const std::string& word : words) {
        if (!line.empty()) line += L' ';
        AppendQuoted(line, WideOf(word));
    }
    return line;
}

std::wstring EnvironmentBlock(const std::vector<std::pair<std::string, std::string>>& changes) {
    if (changes.empty()) return {};
    std::vector<std::wstring> entries = OwnEnvironment();
    for (const auto& [name, value] : changes) {
        const std::wstring wideName = WideOf(name);
        std::erase_if(entries, [&](const std::wstring& entry) {
            return CompareNames(NameOf(entry), wideName) == CSTR_EQUAL;
        });
        entries.push_back(wideName + L"=" + WideOf(value));
    }
    std::sort(entries.begin(), entries.end(), [](const std::wstring& first, const std::wstring& second) {
        return CompareNames(NameOf(first), NameOf(second)) == CSTR_LESS_THAN;
    });
    std::wstring block;
    for (const std::wstring& entry : entries) block += entry + L'\0';
    return block + L'\0';
}

WinHandle InheritableStream(DWORD standardHandle) {
    const HANDLE own = ::GetStdHandle(standardHandle);
    if (own == nullptr || own == INVALID_HANDLE_VALUE) return WinHandle();
    HANDLE copy = nullptr;
    const HANDLE self = ::GetCurrentProcess();
    if (!::DuplicateHandle(self, own, self, &copy, 0, TRUE, DUPLICATE_SAME_ACCESS)) return WinHandle();
    return WinHandle(copy);
}

WinHandle InheritableNull() {
    SECURITY_ATTRIBUTES inheritable = Inheritable();
    return WinHandle(::CreateFileW(L"NUL", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                   &inheritable, OPEN_EXISTING, 0, nullptr));
}

}  // namespace rq::platform
