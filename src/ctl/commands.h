// The commands of rqctl. Each gets what the command line said, does it, prints, and tells what rqctl ends
// with.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ctl/engine_access.h"
#include "ctl/transcode_task.h"
#include "ctl/transfer_task.h"
#include "ctl/watch.h"

namespace rq::ctl {

// What a submission says of its turn, its times and what it takes; what is not given is left out.
struct RunFields {
    std::optional<int> priority;
    std::string notBefore, deadline, deadlineAction, key;
    std::optional<std::int64_t> memory_MiB, cores;
    std::vector<std::string> volumes;
};

struct SubmitOptions {
    std::string name;
    RunFields run = {};
    std::optional<Follow> follow;  // nothing: print the ID and go
    bool json = false;
};

struct ListOptions {
    std::string states;  // comma-separated, empty for all
    int limit = 100;
    bool json = false;
};

struct ShowOptions {
    bool json = false;
    bool events = false;
};

struct Md5Options {
    std::vector<std::string> files;     // or folders, when nothing is expected
    std::vector<std::string> expected;  // none, or one for each file
    std::vector<std::string> checks;    // checksum files to verify, instead of files
    std::string checksumFile;           // to be made
    bool overwrite = false;
    std::optional<int> threads;  // otherwise one for each core that is declared
};

// Files are looked at before the engine is asked.
Outcome<int> SubmitMd5(const std::string& dataFolder, const Md5Options& md5, const SubmitOptions& options);
Outcome<int> SubmitTransfer(const std::string& dataFolder, const TransferOptions& transfer,
                            const SubmitOptions& options);
Outcome<int> SubmitTranscode(const std::string& dataFolder, const TranscodeOptions& transcode,
                             const SubmitOptions& options);
// `textFile` is a path, or "-" for standard input.
Outcome<int> SubmitText(const std::string& dataFolder, const std::string& type, const std::string& textFile,
                        const SubmitOptions& options);
Outcome<int> List(EngineAccess& engine, const ListOptions& options);
Outcome<int> Show(EngineAccess& engine, const std::string& id, const ShowOptions& options);
// An order to a task: "cancel", "suspend", "resume", "finish", "retry" or "delete".
Outcome<int> GiveOrder(EngineAccess& engine, const std::string& order, const std::string& id, bool json);
// `textFile` is a path, or "-" for standard input.
Outcome<int> Update(EngineAccess& engine, const std::string& id, const std::string& textFile, bool json);
Outcome<int> SetPriority(EngineAccess& engine, const std::string& id, int priority, bool json);
Outcome<int> Explain(EngineAccess& engine, const std::string& id, bool asJson);
// "drain" or "undrain", for all types when `type` is empty.
Outcome<int> DrainOrUndrain(EngineAccess& engine, const std::string& order, const std::string& type,
                            bool json);
// `file` is made absolute; the engine makes it.
Outcome<int> Backup(EngineAccess& engine, const std::string& file, bool asJson);
// What becomes of a path in a task text on the engine's node. kExitFailed when it cannot be reached.
Outcome<int> TestPath(EngineAccess& engine, const std::string& path, bool asJson);
Outcome<int> CollectGarbage(EngineAccess& engine, bool asJson);
// Returns when the engine has ended. `cancel`: its tasks are cancelled and its workers ended; else those go
// on.
Outcome<int> Shutdown(EngineAccess& engine, bool cancel, bool asJson);

// ---- their texts; pure ----
std::string ListTable(const nlohmann::json& tasks);
std::string ExplainText(const nlohmann::json& answer);
std::string ShowText(const nlohmann::json& task, const nlohmann::json& events);

}  // namespace rq::ctl
