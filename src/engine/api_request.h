// Requests and answers of the HTTP API as plain values, and the reading of what a client sent. Pure; any
// thread.
#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/result.h"
#include "engine/store_types.h"

namespace rq::engine {

struct ApiRequest {
    std::string method;
    std::string target;                            // path and query as sent
    std::string host, authorization, contentType;  // header fields, empty when missing
    std::string body;
};

struct ApiResponse {
    unsigned status = 200;
    std::string body;  // JSON
    std::vector<std::pair<std::string, std::string>> headers;
};

ApiResponse MakeResponse(unsigned status, const nlohmann::json& document);
ApiResponse MakeError(unsigned status, const std::string& code, const std::string& message,
                      const std::string& field = {});

// A target taken apart: path segments and query parameters, percent-decoded.
struct Target {
    std::vector<std::string> path;
    std::map<std::string, std::string> query;
};

// "127.0.0.1", "localhost", "[::1]", each with or without a port.
bool IsLocalHost(std::string_view host);
// An address, not a name, with or without a port: nobody else can have pointed it here.
bool IsAddressHost(std::string_view host);
// "Bearer <token>", the scheme in any case.
bool HasToken(std::string_view authorization, std::string_view token);

// A field or parameter at fault, and why.
struct FieldError {
    FieldError() = default;
    FieldError(std::string c, std::string f, std::string m)
        : code(std::move(c)), field(std::move(f)), message(std::move(m)) {}
    std::string code;
    std::string field;
    std::string message;
};
template <class T>
using Checked = boost::system::result<T, FieldError>;
[[noreturn]] void throw_exception_from_error(const FieldError& error, const boost::source_location&);

// Refused: what does not begin with "/", a broken percent sequence, a parameter that is given twice.
Checked<Target> ParseTarget(std::string_view target);
// The first parameter that is none of `known`.
std::optional<FieldError> UnknownParameter(const Target& target, const std::vector<std::string_view>& known);

// Times from now on count from `now_us`.
Checked<NewTask> ParseSubmission(std::string_view body, std::int64_t now_us);
// The text of {"text": "..."}.
Checked<std::string> ParseUpdate(std::string_view body);
// The priority of {"priority": ...}.
Checked<std::int32_t> ParsePriority(std::string_view body);
// The value of {"cancel": ...}; false without a body.
Checked<bool> ParseShutdown(std::string_view body);
// The type of {"type": ...}; kEveryType without a body.
Checked<std::int32_t> ParseDrain(std::string_view body);
Checked<TaskQuery> ParseListQuery(const Target& target);
// The parameter as a number from `least` to `most`; `fallback` when it is missing.
Checked<std::int64_t> ParseNumber(const Target& target, const std::string& name, std::int64_t least,
                                  std::int64_t most, std::int64_t fallback);
// "t12" -> 12; nothing for what is no task ID.
std::optional<std::int64_t> ParseTaskId(std::string_view id);

}  // namespace rq::engine
