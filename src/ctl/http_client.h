// HttpClient: requests to the engine's API over one kept connection. Blocking; one thread. The only place
// that knows Boost.Beast.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "base/result.h"

namespace rq::ctl {

struct HttpAnswer {
    unsigned status = 0;
    std::string body;
};

class HttpClient {
  public:
    // Nothing is connected yet. The port is on 127.0.0.1.
    HttpClient(std::uint16_t port, std::string token);
    ~HttpClient();
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;

    // Connects when there is no connection, and once more when the engine closed the kept one before it took
    // the request. An error when no answer came within `limit`.
    Result<HttpAnswer> Send(const std::string& method, const std::string& target,
                            const std::string& body = {},
                            std::chrono::milliseconds limit = std::chrono::seconds(40));

  private:
    struct Connection;
    std::unique_ptr<Connection> m_connection;
};

}  // namespace rq::ctl
