#include "url_servers.h"

#include "base/paths.h"
#include "kit/files.h"
#include "kit/os.h"
#include "platform/win_api.h"

namespace rq::transfer {
namespace {

// Wine's own: the path below it of a Windows path.
std::string UnixPath(const std::string& path) {
    using Function = char* (*)(const wchar_t*);
    const auto function = reinterpret_cast<Function>(reinterpret_cast<void*>(
        ::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name")));
    char* raw = function == nullptr ? nullptr : function(PathFromUtf8(path).c_str());
    if (raw == nullptr) throw std::runtime_error("no path below Wine for " + path);
    std::string found = raw;
    ::HeapFree(::GetProcessHeap(), 0, raw);
    return found;
}

platform::WinHandle NewFile(const std::filesystem::path& path) {
    SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
    return platform::WinHandle(::CreateFileW(path.c_str(), GENERIC_WRITE,
                                             FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                             &inheritable, CREATE_ALWAYS, 0, nullptr));
}

}  // namespace

struct UrlServers::Process {
    kit::TempDir folder;
};

UrlServers::UrlServers(const std::string& folder, const std::string& keys,
                       const std::vector<std::string>& wanted)
    : m_process(std::make_unique<Process>()) {
    std::vector<std::string> arguments{RQ_PYTHON, "-B", RQ_SERVERS, UnixPath(folder), UnixPath(keys)};
    arguments.insert(arguments.end(), wanted.begin(), wanted.end());
    arguments.push_back("alone");
    std::string command;
    for (const std::string& argument : arguments) command += "\"" + argument + "\" ";
    std::wstring wide = PathFromUtf8(command).native();
    const platform::WinHandle output = NewFile(m_process->folder.Path() / "out");
    STARTUPINFOW info{};
    info.cb = sizeof info;
    info.dwFlags = STARTF_USESTDHANDLES;
    info.hStdOutput = output.Get();
    info.hStdError = output.Get();
    PROCESS_INFORMATION process{};  // stays empty: Wine has no handle of such a process
    const std::wstring program = PathFromUtf8("Z:" RQ_PYTHON).make_preferred().native();
    if (!::CreateProcessW(program.c_str(), wide.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &info,
                          &process))
        throw std::runtime_error("the servers cannot be started: " +
                                 kit::Words(static_cast<int>(::GetLastError())));
}

UrlServers::~UrlServers() = default;

std::string UrlServers::Output() const {
    return kit::ReadText(m_process->folder.Path() / "out");
}

std::string UrlServers::Errors() const {
    return Output();
}

bool CanServe() {
    return kit::IsWine();
}

// Those of mbed TLS.
std::vector<std::string> SshKeyKinds() {
    return {"ecdsa"};
}

}  // namespace rq::transfer
