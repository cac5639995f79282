// The task text of a transfer (docs/tasks/transfer.md) from a command line, and what a finished one prints.
// What values may be the plug-in says. Pure but for looking at the files; any thread.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "base/result.h"

namespace rq::ctl {

// As on the command line; empty texts are left out of the task text.
struct TransferOptions {
    std::string source;  // path or URL
    std::string target;  // what the source becomes
    bool move = false, overwrite = false, md5 = false, sha256 = false, verify = false, manifest = false;
    std::string rate_kBps, expected, credentials;
};

// Makes paths absolute and looks at them; URLs stay as they are.
Result<TransferOptions> PrepareTransfer(TransferOptions options);

// Of prepared options; `id` is the ID within the text.
std::string BuildTransferTaskXml(const std::string& id, const TransferOptions& options);

// "/b/a.mxf: copied, 1.2 MiB, md5:9001...", a line for each file. `result` is the "result" of a task
// (docs/api.md); empty when it is no transfer's.
std::string ReportTransfer(const nlohmann::json& result);

}  // namespace rq::ctl
