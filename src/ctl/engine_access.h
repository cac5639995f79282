// EngineAccess: finds the engine of a data folder and talks to its API, turning what goes wrong into texts
// that name the remedy. Blocking; one thread.
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "base/result.h"
#include "ctl/http_client.h"

namespace rq::ctl {

// What rqctl ends with.
enum ExitCode : int {
    kExitFinished = 0,
    kExitFailed = 1,
    kExitUsage = 2,
    kExitNoEngine = 3,
    kExitCancelled = 4,
    kExitRefused = 5,  // the task's state does not allow the order
};

// A command's failure: its text and what rqctl ends with.
struct Failure {
    Failure() = default;
    Failure(int code, std::string text) : exitCode(code), message(std::move(text)) {}
    int exitCode = kExitFailed;
    std::string message;
};
template <class T>
using Outcome = boost::system::result<T, Failure>;
[[noreturn]] void throw_exception_from_error(const Failure& failure, const boost::source_location&);

class EngineAccess {
  public:
    // Reads "engine.json" and "engine.token" of the folder.
    static Outcome<std::unique_ptr<EngineAccess>> Open(const std::string& dataFolder);

    // The answer's document when its status is a success.
    Outcome<nlohmann::json> Get(const std::string& target) { return Call("GET", target, {}); }
    Outcome<nlohmann::json> Post(const std::string& target, const std::string& body = {}) {
        return Call("POST", target, body);
    }
    Outcome<nlohmann::json> Delete(const std::string& target) { return Call("DELETE", target, {}); }
    const std::string& DataFolder() const { return m_dataFolder; }

  private:
    EngineAccess(std::string dataFolder, std::uint16_t port, std::string token);
    Outcome<nlohmann::json> Call(const std::string& method, const std::string& target,
                                 const std::string& body);

    const std::string m_dataFolder;
    const std::uint16_t m_port;
    HttpClient m_client;
};

// What to do when no engine runs on this folder.
std::string HowToStart(const std::string& dataFolder);

// A segment of a path, percent-encoded.
std::string EncodeSegment(const std::string& text);

}  // namespace rq::ctl
