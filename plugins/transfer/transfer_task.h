// The task text of a transfer (docs/tasks/transfer.md), read and checked. Pure; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "plugin_common/digest.h"
#include "plugin_common/task_xml.h"

namespace rq::transfer {

struct TransferItem {
    std::string source;       // absolute, as in the task text: a file or a folder; or the URL of a file
    std::string target;       // what the source becomes, not the folder to put it into; or a URL, not both
    std::string credentials;  // the name of the URL's; empty: none
    std::optional<task::Md5Digest> expected;
};

struct TransferTask {
    std::string id;
    bool move = false;
    bool overwrite = false;
    bool md5 = false;  // wanted by the task, or for the verification or the manifest
    bool sha256 = false;
    bool verify = false;
    bool manifest = false;
    std::uint64_t limit_Bps = 0;  // 0: none
    std::vector<TransferItem> items;
};

// False, with `error` set, for a text that does not fit; the ID is there when that much could be read.
bool ReadTransferTask(std::string_view text, TransferTask& task, task::XmlError& error);

}  // namespace rq::transfer
