// What a finished MD5 task prints: lines as md5sum writes and checks them. Pure; any thread.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace rq::ctl {

struct Md5Report {
    std::string text;  // for standard output, with line ends
    std::vector<std::string>
        problems;  // for standard error, one for each file without a sum or with a wrong one
};

// `result` is the "result" of a task (docs/api.md); an empty report when it is no MD5 result.
// Computation: "<hex>  <path>"; a path with a line end or a backslash is escaped and its line begins with a
// backslash. Verification: "<path>: OK", "<path>: FAILED" or, when there was nothing to compare with,
// "<path>: not compared".
Md5Report ReportMd5(const nlohmann::json& result);

}  // namespace rq::ctl
