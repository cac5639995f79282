#include "ctl/engine_access.h"

#include <stdexcept>

#include "base/paths.h"
#include "platform/files.h"

namespace rq::ctl {

namespace {

using nlohmann::json;

std::string Under(const std::string& folder, const char* name) {
    return Utf8FromPath(PathFromUtf8(folder) / name);
}

// A path that a shell takes as it stands. The shells of Windows know double quotes only, which no path there
// has.
std::string Quoted(const std::string& word) {
    const bool isWindows = PathSeparator() == L'\\';
    const std::string plain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-+:,@" +
                              std::string(isWindows ? "\\" : "");
    if (word.find_first_not_of(plain) == std::string::npos && !word.empty()) return word;
    if (isWindows) return '"' + word + '"';
    std::string quoted = "'";
    for (const char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

std::string MessageOf(const HttpAnswer& answer) {
    const json document = json::parse(answer.body, nullptr, false);
    if (document.is_object() && document.contains("error") && document["error"].contains("message") &&
        document["error"]["message"].is_string())
        return document["error"]["message"];
    return "the engine answered with HTTP status " + std::to_string(answer.status);
}

}  // namespace

void throw_exception_from_error(const Failure& failure, const boost::source_location&) {
    throw std::runtime_error(failure.message);
}

std::string HowToStart(const std::string& dataFolder) {
    return "start it with: rqengine --data " + Quoted(dataFolder) +
           " (or name the folder of a running one with --data)";
}

std::string EncodeSegment(const std::string& text) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string encoded;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                           c == '-' || c == '_' || c == '.' || c == '~';
        if (plain)
            encoded += c;
        else
            encoded += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
    }
    return encoded;
}

EngineAccess::EngineAccess(std::string dataFolder, std::uint16_t port, std::string token)
    : m_dataFolder(std::move(dataFolder)), m_port(port), m_client(port, std::move(token)) {}

Outcome<std::unique_ptr<EngineAccess>> EngineAccess::Open(const std::string& dataFolder) {
    const std::string file = Under(dataFolder, "engine.json");
    platform::OsError error;
    const auto text = platform::ReadWholeFile(file, &error);
    if (!text)
        return Failure(kExitNoEngine, "no engine runs on the data folder " + dataFolder + " (" +
                                          error.message + "); " + HowToStart(dataFolder));
    const json facts = json::parse(*text, nullptr, false);
    if (!facts.is_object() || !facts.contains("http_port") || !facts["http_port"].is_number_unsigned())
        return Failure(kExitNoEngine, file + ": not the file of a running engine; " + HowToStart(dataFolder));
    auto token = platform::ReadWholeFile(Under(dataFolder, "engine.token"), &error);
    if (!token)
        return Failure(kExitNoEngine, "the engine's token cannot be read: " + error.message +
                                          "; rqctl must run as the engine's user");
    while (!token->empty() && (token->back() == '\n' || token->back() == '\r')) token->pop_back();
    return std::unique_ptr<EngineAccess>(
        new EngineAccess(dataFolder, facts["http_port"].get<std::uint16_t>(), std::move(*token)));
}

Outcome<json> EngineAccess::Call(const std::string& method, const std::string& target,
                                 const std::string& body) {
    const auto answer = m_client.Send(method, target, body);
    if (!answer)
        return Failure(kExitNoEngine, "the engine at 127.0.0.1:" + std::to_string(m_port) +
                                          " does not answer (" + answer.error().message +
                                          "); if it is not running, " + HowToStart(m_dataFolder));
    if (answer->status == 401)
        return Failure(kExitNoEngine, "the engine at 127.0.0.1:" + std::to_string(m_port) +
                                          " refuses the token in " + Under(m_dataFolder, "engine.token") +
                                          ": another engine has this port, or the file was changed");
    if (answer->status == 400 || answer->status == 413) return Failure(kExitUsage, MessageOf(*answer));
    if (answer->status == 409) return Failure(kExitRefused, MessageOf(*answer));
    if (answer->status >= 300) return Failure(kExitFailed, MessageOf(*answer));
    json document = json::parse(answer->body, nullptr, false);
    if (document.is_discarded()) return Failure(kExitFailed, "the engine's answer is not JSON");
    return document;
}

}  // namespace rq::ctl
