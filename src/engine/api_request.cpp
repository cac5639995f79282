#include "engine/api_request.h"

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <charconv>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "base/text.h"
#include "engine/json.h"
#include "engine/submission_fields.h"
#include "engine/task_secrets.h"
#include "records/task_codes.h"

namespace rq::engine {

namespace {

using nlohmann::json;

constexpr std::int32_t kLargestType = 299;
constexpr std::size_t kNameLimit_bytes = 200;

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::optional<std::string> DecodePercent(std::string_view text) {
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            plain += text[i];
            continue;
        }
        if (i + 2 >= text.size()) return std::nullopt;
        const int high = HexDigit(text[i + 1]), low = HexDigit(text[i + 2]);
        if (high < 0 || low < 0) return std::nullopt;
        plain += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return plain;
}

// The pieces between separators, empty ones left out.
std::vector<std::string_view> Split(std::string_view text, char separator) {
    std::vector<std::string_view> pieces;
    while (!text.empty()) {
        const auto end = std::min(text.find(separator), text.size());
        if (end > 0) pieces.push_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return pieces;
}

bool EqualIgnoringCase(std::string_view a, std::string_view b) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [&](char x, char y) { return lower(x) == lower(y); });
}

template <class Number>
std::optional<Number> WholeNumber(std::string_view text) {
    Number number{};
    const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (code != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

std::string KnownCodes() {
    std::string all;
    for (const auto& entry : kTaskCodes) all += (all.empty() ? "" : ", ") + std::string(entry.code);
    return all;
}

FieldError BadField(const std::string& field, const std::string& why) {
    return {"bad-field", field, field + ": " + why};
}

Checked<std::int32_t> ParseType(const json& value) {
    std::optional<std::int32_t> type;
    if (value.is_string()) {
        const auto& text = value.get_ref<const std::string&>();
        type = TypeOfTaskCode(text);
        if (!type) type = WholeNumber<std::int32_t>(text);
    } else if (value.is_number_integer() && value >= 0 && value <= kLargestType) {
        type = value.get<std::int32_t>();
    }
    if (type && *type >= 0 && *type <= kLargestType) return *type;
    // Only scalars are shown: writing out deep nesting would take as much stack as the sender likes.
    const std::string shown = value.is_structured() ? value.type_name() : Dump(value).substr(0, 60);
    return BadField("type", shown + " is neither a type code (" + KnownCodes() + ") nor a number from 0 to " +
                                std::to_string(kLargestType));
}

std::optional<FieldError> SecretIn(const std::string& field, const std::string& text) {
    const auto secret = FindSecret(text);
    if (!secret) return std::nullopt;
    return BadField(field, "line " + std::to_string(secret->line) + ": " + secret->what +
                               " is not taken, since what is submitted is stored and shown; keep secrets in "
                               "a file that only the workers' user can read, and refer to them by a name");
}

Checked<std::string> ParseText(const json& value) {
    if (!value.is_string()) return BadField("text", "must be a text");
    const auto& text = value.get_ref<const std::string&>();
    if (text.empty()) return BadField("text", "must not be empty");
    if (text.find('\0') != std::string::npos) return BadField("text", "must not hold U+0000");
    if (auto secret = SecretIn("text", text)) return *secret;
    return text;
}

Checked<std::string> ParseName(const json& value) {
    if (!value.is_string()) return BadField("name", "must be a text");
    const auto& name = value.get_ref<const std::string&>();
    if (name.size() > kNameLimit_bytes)
        return BadField("name", "must not be longer than " + std::to_string(kNameLimit_bytes) + " bytes");
    const auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; };
    if (std::any_of(name.begin(), name.end(), isControl))
        return BadField("name", "must not hold control characters");
    if (auto secret = SecretIn("name", name)) return *secret;
    return name;
}

}  // namespace

void throw_exception_from_error(const FieldError& error, const boost::source_location&) {
    throw std::runtime_error(error.message);
}

ApiResponse MakeResponse(unsigned status, const json& document) {
    return {status, Dump(document) + "\n", {}};
}

ApiResponse MakeError(unsigned status, const std::string& code, const std::string& message,
                      const std::string& field) {
    return MakeResponse(status, ErrorJson(code, message, field));
}

Checked<Target> ParseTarget(std::string_view target) {
    const auto broken = [](std::string_view piece) {
        return FieldError{
            "bad-request", "",
            "\"" + std::string(CutUtf8(piece, 60)) +
                "\" holds a % without two hexadecimal digits behind it; write %25 for a percent sign"};
    };
    if (target.empty() || target.front() != '/')
        return FieldError{"bad-request", "", "the target must begin with \"/\""};
    const auto question = std::min(target.find('?'), target.size());
    Target parsed;
    for (const auto piece : Split(target.substr(0, question), '/')) {
        auto plain = DecodePercent(piece);
        if (!plain) return broken(piece);
        parsed.path.push_back(std::move(*plain));
    }
    for (const auto piece : Split(target.substr(std::min(question + 1, target.size())), '&')) {
        const auto equals = std::min(piece.find('='), piece.size());
        const auto name = DecodePercent(piece.substr(0, equals));
        const auto value = DecodePercent(piece.substr(std::min(equals + 1, piece.size())));
        if (!name || !value) return broken(piece);
        if (!parsed.query.emplace(*name, *value).second)
            return BadField(std::string(CutUtf8(*name, 60)), "is given more than once");
    }
    return parsed;
}

std::optional<FieldError> UnknownParameter(const Target& target, const std::vector<std::string_view>& known) {
    std::string names;
    for (const auto name : known) names += (names.empty() ? "" : ", ") + std::string(name);
    for (const auto& [name, value] : target.query) {
        if (std::find(known.begin(), known.end(), name) == known.end())
            return BadField(std::string(CutUtf8(name, 60)),
                            names.empty() ? "this path takes no parameters"
                                          : "is not a parameter of this path (" + names + ")");
    }
    return std::nullopt;
}

namespace {

// Without the port; nothing when that is none.
std::optional<std::string_view> WithoutPort(std::string_view host) {
    // After the closing bracket in "[::1]:8084".
    const auto bracket = host.rfind(']');
    const auto colon = host.find(':', bracket == std::string_view::npos ? 0 : bracket);
    if (colon == std::string_view::npos) return host;
    if (!WholeNumber<std::uint16_t>(host.substr(colon + 1))) return std::nullopt;
    return host.substr(0, colon);
}

}  // namespace

bool IsAddressHost(std::string_view host) {
    const auto plain = WithoutPort(host);
    if (!plain || plain->empty()) return false;
    // Windows takes shorter forms of IPv4, too.
    if (plain->front() != '[' && std::count(plain->begin(), plain->end(), '.') != 3) return false;
    boost::system::error_code error;
    if (plain->front() == '[' && plain->back() == ']')
        boost::asio::ip::make_address_v6(std::string(plain->substr(1, plain->size() - 2)), error);
    else
        boost::asio::ip::make_address_v4(std::string(*plain), error);
    return !error;
}

bool IsLocalHost(std::string_view whole) {
    const auto plain = WithoutPort(whole);
    const std::string_view host = plain.value_or("");
    return host == "127.0.0.1" || host == "[::1]" || EqualIgnoringCase(host, "localhost");
}

bool HasToken(std::string_view authorization, std::string_view token) {
    constexpr std::string_view kScheme = "Bearer ";
    if (token.empty() || authorization.size() != kScheme.size() + token.size()) return false;
    if (!EqualIgnoringCase(authorization.substr(0, kScheme.size()), kScheme)) return false;
    const auto shown = authorization.substr(kScheme.size());
    unsigned char difference = 0;  // the time does not depend on where they differ
    for (std::size_t i = 0; i < token.size(); ++i)
        difference |= static_cast<unsigned char>(token[i] ^ shown[i]);
    return difference == 0;
}

Checked<NewTask> ParseSubmission(std::string_view body, std::int64_t now_us) {
    const json document = json::parse(body, nullptr, false);
    if (!document.is_object()) return FieldError{"bad-json", "", "the body is not a JSON object"};
    NewTask task;
    for (const auto& [key, value] : document.items()) {
        if (key == "type") {
            auto type = ParseType(value);
            if (!type) return type.error();
            task.type = *type;
        } else if (key == "text") {
            auto text = ParseText(value);
            if (!text) return text.error();
            task.text = std::move(*text);
        } else if (key == "name") {
            auto name = ParseName(value);
            if (!name) return name.error();
            task.name = std::move(*name);
        } else if (IsRunField(key)) {
            if (auto fault = TakeRunField(key, value, now_us, task)) return *fault;
        } else {
            return BadField(
                std::string(CutUtf8(key, 60)),
                "is not a field of a submission (type, text, name, priority, not_before, deadline, "
                "deadline_action, memory_mib, cores, volumes, key)");
        }
    }
    for (const char* field : {"type", "text"}) {
        if (!document.contains(field)) return BadField(field, "is missing");
    }
    if (auto fault = CheckRunFields(task, document.contains("deadline_action"))) return *fault;
    return task;
}

Checked<std::string> ParseUpdate(std::string_view body) {
    const json document = json::parse(body, nullptr, false);
    if (!document.is_object()) return FieldError{"bad-json", "", "the body is not a JSON object"};
    for (const auto& [key, value] : document.items()) {
        if (key != "text")
            return BadField(std::string(CutUtf8(key, 60)), "is not a field of an update (text)");
    }
    if (!document.contains("text")) return BadField("text", "is missing");
    return ParseText(document["text"]);
}

Checked<std::int32_t> ParsePriority(std::string_view body) {
    const json document = json::parse(body, nullptr, false);
    if (!document.is_object()) return FieldError{"bad-json", "", "the body is not a JSON object"};
    for (const auto& [key, value] : document.items()) {
        if (key != "priority")
            return BadField(std::string(CutUtf8(key, 60)), "is not a field of this order (priority)");
    }
    if (!document.contains("priority")) return BadField("priority", "is missing");
    const auto priority = PriorityOf(document["priority"]);
    if (!priority) return BadField("priority", kPriorityWanted);
    return *priority;
}

Checked<std::int32_t> ParseDrain(std::string_view body) {
    if (body.empty()) return kEveryType;
    const json document = json::parse(body, nullptr, false);
    if (!document.is_object()) return FieldError{"bad-json", "", "the body is not a JSON object"};
    for (const auto& [key, value] : document.items()) {
        if (key != "type")
            return BadField(std::string(CutUtf8(key, 60)), "is not a field of this order (type)");
    }
    return document.contains("type") ? ParseType(document["type"]) : Checked<std::int32_t>(kEveryType);
}

Checked<bool> ParseShutdown(std::string_view body) {
    if (body.empty()) return false;
    const json document = json::parse(body, nullptr, false);
    if (!document.is_object()) return FieldError{"bad-json", "", "the body is not a JSON object"};
    for (const auto& [key, value] : document.items()) {
        if (key != "cancel")
            return BadField(std::string(CutUtf8(key, 60)), "is not a field of this order (cancel)");
        if (!value.is_boolean()) return BadField(key, "must be true or false");
    }
    return document.value("cancel", false);
}

Checked<std::int64_t> ParseNumber(const Target& target, const std::string& name, std::int64_t least,
                                  std::int64_t most, std::int64_t fallback) {
    const auto found = target.query.find(name);
    if (found == target.query.end()) return fallback;
    const auto number = WholeNumber<std::int64_t>(found->second);
    if (number && *number >= least && *number <= most) return *number;
    return BadField(name,
                    "must be a whole number from " + std::to_string(least) + " to " + std::to_string(most));
}

std::optional<std::int64_t> ParseTaskId(std::string_view id) {
    if (id.size() < 2 || id.front() != 't' || id[1] < '1' || id[1] > '9') return std::nullopt;
    return WholeNumber<std::int64_t>(id.substr(1));
}

Checked<TaskQuery> ParseListQuery(const Target& target) {
    TaskQuery query;
    auto limit = ParseNumber(target, "limit", 1, 1000, 100);
    if (!limit) return limit.error();
    query.limit = *limit;
    if (const auto after = target.query.find("after"); after != target.query.end()) {
        query.before_key = ParseTaskId(after->second);
        if (!query.before_key) return BadField("after", "must be a task ID");
    }
    if (const auto states = target.query.find("state"); states != target.query.end()) {
        for (const auto name : Split(states->second, ',')) {
            const auto state = TaskStateOf(name);
            if (!state) return BadField("state", "\"" + std::string(name) + "\" is not a state of a task");
            if (std::find(query.states.begin(), query.states.end(), *state) == query.states.end())
                query.states.push_back(*state);
        }
    }
    return query;
}

}  // namespace rq::engine
