// rqctl's command line: its commands with their options, and what was said. The scripts for shells are made
// from it too. One thread.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "ctl/commands.h"
#include "ctl/replay.h"
#include "ctl/transcode_task.h"
#include "ctl/transfer_task.h"

namespace rq::ctl {

struct CommandLine {
    std::string dataFolder;
    Md5Options md5;
    std::string type, text, name, id, code, file;
    std::uint32_t family = 0;
    bool all = false;
    bool cancel = false;
    bool json = false;
    std::string journal;
    ReplayOptions replay;
    int replayWait_s = 120;
    bool wait = false, watch = false;
    RunFields run;
    std::vector<std::string> ids;
    int priority = 0;
    std::string shell;
    ListOptions list;
    ShowOptions show;
    TranscodeOptions transcode;
    TransferOptions transfer;
};

struct TaskOrder {
    const char* name;
    const char* meaning;
};
inline constexpr TaskOrder kTaskOrders[] = {
    {"cancel", "End a task; what is done may be lost"},
    {"suspend", "Pause a running task, or keep a queued one from being started"},
    {"resume", "Let a suspended task go on"},
    {"finish", "Stop a running task and keep what is done"},
    {"retry", "Queue a failed, cancelled or lost task again"},
    {"delete", "Remove an ended task with everything that is kept of it"},
};

// `line` gets what is parsed, and must stay where it is.
void AddCommands(CLI::App& app, CommandLine& line);

}  // namespace rq::ctl
