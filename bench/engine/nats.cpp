// Publisher of a NATS JetStream stream that is kept in files, for bench/submit.sh. Speaks the server's text
// protocol.
//
//   nats submit PORT CLIENTS COUNT   COUNT messages by so many clients at once, each waiting for every
//                                    acknowledgement; prints messages a second
#include <thread>

#include "../link/common.h"

namespace {

using namespace bench;

class Client {
  public:
    Client(std::uint16_t port, unsigned number)
        : m_socket(Connect(port)), m_inbox("_INBOX." + std::to_string(number)) {
        Line();  // INFO
        Write("CONNECT {\"verbose\":false,\"pedantic\":false}\r\nSUB " + m_inbox + " 1\r\n");
    }
    ~Client() { close(m_socket); }

    std::string Ask(const std::string& subject, const std::string& payload) {
        Write("PUB " + subject + " " + m_inbox + " " + std::to_string(payload.size()) + "\r\n" + payload +
              "\r\n");
        for (;;) {
            const std::string line = Line();
            if (line.compare(0, 4, "PING") == 0) Write("PONG\r\n");
            if (line.compare(0, 4, "-ERR") == 0) Die(line);
            if (line.compare(0, 4, "MSG ") != 0) continue;
            const std::size_t size = std::strtoul(line.c_str() + line.rfind(' ') + 1, nullptr, 10) + 2;
            while (m_input.size() < size) Read();
            std::string answer = m_input.substr(0, size);
            m_input.erase(0, size);
            Check(answer.find("\"error\"") == std::string::npos, answer.c_str());
            return answer;
        }
    }

  private:
    void Read() { Check(ReadSome(m_socket, &m_input), "nats-server closed the connection"); }
    void Write(const std::string& bytes) { WriteAll(m_socket, bytes); }
    std::string Line() {
        std::size_t end = 0;
        while ((end = m_input.find("\r\n")) == std::string::npos) Read();
        std::string line = m_input.substr(0, end);
        m_input.erase(0, end + 2);
        return line;
    }

    int m_socket;
    std::string m_inbox;
    std::string m_input;
};

void SubmitAll(std::uint16_t port, unsigned clients, unsigned count) {
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < clients; ++i) {
        threads.emplace_back([=] {
            Client client(port, i);
            for (unsigned j = i; j < count; j += clients) client.Ask("tasks", TaskText(j));
        });
    }
    for (auto& thread : threads) thread.join();
}

}  // namespace

int main(int argc, char** argv) {
    Check(argc == 5 && std::string_view(argv[1]) == "submit", "usage: nats submit PORT CLIENTS COUNT");
    const auto port = static_cast<std::uint16_t>(std::strtoul(argv[2], nullptr, 10));
    const auto clients = static_cast<unsigned>(std::strtoul(argv[3], nullptr, 10));
    const auto count = static_cast<unsigned>(std::strtoul(argv[4], nullptr, 10));
    Client(port, 0).Ask("$JS.API.STREAM.CREATE.tasks",
                        R"({"name":"tasks","subjects":["tasks"],"storage":"file"})");
    SubmitAll(port, clients, clients * 8);
    const Time begin = Now();
    SubmitAll(port, clients, count);
    std::printf("%.1f\n", count / Seconds(begin, Now()));
}
