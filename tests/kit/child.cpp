#include "kit/child.h"

#include <stdexcept>

#include "base/paths.h"

namespace rq::kit {

Child::Child(const std::filesystem::path& program, const std::vector<std::string>& arguments)
    : Child(program, arguments, Options()) {}

Child::Child(const std::filesystem::path& program, const std::vector<std::string>& arguments,
             const Options& options) {
    platform::ProcessSpec spec;
    spec.program = Utf8FromPath(program);
    spec.arguments = arguments;
    spec.environment = options.environment;
    spec.directory = Utf8FromPath(options.directory);
    spec.output = platform::ProcessSpec::Stream::File;
    spec.outputFile = Utf8FromPath(OutputFile());
    spec.errors = platform::ProcessSpec::Stream::File;
    spec.errorsFile = Utf8FromPath(ErrorsFile());
    platform::OsError error;
    m_process = platform::ChildProcess::Start(spec, &error);
    // Wine gives a new process ten seconds to begin, then this "internal error": on a busy machine that is
    // too short.
    constexpr int kInternalError = 1359;
    for (int again = 0; again < 2 && m_process == nullptr && error.code == kInternalError; ++again)
        m_process = platform::ChildProcess::Start(spec, &error);
    if (m_process == nullptr) throw std::runtime_error(error.message);
}

Child::~Child() {
    m_process->KillTree();
    m_process->Wait(kPatience);
}

std::optional<platform::ExitStatus> Child::Wait(std::chrono::milliseconds bound) {
    return m_process->Wait(bound);
}

int Child::ExitCode(std::chrono::milliseconds bound) {
    const auto status = Wait(bound);
    if (!status) return -1;
    return status->signalled ? 1000 + status->code : status->code;
}

bool Child::IsRunning() {
    return !Wait(std::chrono::milliseconds(0));
}

}  // namespace rq::kit
