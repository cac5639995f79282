// Scripts that let a shell complete rqctl's command line. They are made from the command line's own
// description, so that a command or option that it has cannot be missing. Pure; one thread.
#pragma once

#include <optional>
#include <string>

namespace CLI {
class App;
}

namespace rq::ctl {

// For "bash", "zsh" or "powershell"; nothing for another shell.
std::optional<std::string> CompletionScript(const CLI::App& app, const std::string& shell);

}  // namespace rq::ctl
