// The engine's API for the bench's programs: one connection that is kept, requests one after the other.
#pragma once

#include "../link/common.h"

namespace bench {

class Http {
  public:
    Http(std::uint16_t port, std::string token) : m_socket(Connect(port)), m_token(std::move(token)) {}
    ~Http() { close(m_socket); }
    Http(const Http&) = delete;
    Http& operator=(const Http&) = delete;

    // The answer's body. Ends the program unless the status is 2xx.
    std::string Ask(const char* method, const std::string& target, const std::string& body = {}) {
        WriteAll(m_socket, std::string(method) + " " + target +
                               " HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Bearer " + m_token +
                               "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
        std::size_t head = std::string::npos;
        while ((head = m_input.find("\r\n\r\n")) == std::string::npos)
            Check(ReadSome(m_socket, &m_input), "the API closed the connection");
        const std::size_t at = m_input.find("Content-Length: ");
        Check(m_input.compare(0, 10, "HTTP/1.1 2") == 0 && at < head, "the API refused");
        const std::size_t size = std::strtoul(m_input.c_str() + at + 16, nullptr, 10);
        while (m_input.size() < head + 4 + size)
            Check(ReadSome(m_socket, &m_input), "the API closed the connection");
        std::string answer = m_input.substr(head + 4, size);
        m_input.erase(0, head + 4 + size);
        return answer;
    }
    // A task of the package type; its ID.
    std::string Submit(unsigned number) {
        const std::string answer =
            Ask("POST", "/api/v1/tasks", R"({"type":14,"text":")" + TaskText(number) + "\"}");
        const std::size_t at = answer.find("\"id\":\"");
        Check(at != std::string::npos, "a submission without an ID");
        return answer.substr(at + 6, answer.find('"', at + 6) - at - 6);
    }
    // Until the task has finished.
    void Await(const std::string& id) {
        for (std::string after = "0";;) {
            const std::string answer =
                Ask("GET", "/api/v1/tasks/" + id + "/events?wait_ms=20000&after=" + after);
            if (answer.find("\"state\":\"finished\"") != std::string::npos) return;
            for (const char* bad : {"\"state\":\"failed\"", "\"state\":\"lost\"", "\"state\":\"cancelled\""})
                Check(answer.find(bad) == std::string::npos, "a task did not finish");
            const std::size_t at = answer.find("\"last\":");
            after = std::to_string(std::strtoull(answer.c_str() + at + 7, nullptr, 10));
        }
    }

  private:
    int m_socket;
    std::string m_token;
    std::string m_input;
};

}  // namespace bench
