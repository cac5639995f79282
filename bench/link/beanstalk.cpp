// Worker and submitter of a beanstalkd, for bench/link.sh. The worker takes jobs from the tube "work"; a
// submitter that waits for its job's end hears of it through the tube "done".
//
//   beanstalk fill PORT COUNT     submits COUNT jobs
//   beanstalk drain PORT COUNT    takes COUNT jobs; prints jobs a second
//   beanstalk work PORT           takes jobs and tells their end, until the connection ends
//   beanstalk single PORT COUNT   one at a time; prints microseconds: median, 99th percentile
#include "common.h"

namespace {

using namespace bench;

constexpr unsigned kWarmUp = 200;

class Client {
  public:
    explicit Client(std::uint16_t port) : m_socket(Connect(port)) {}

    void Tubes(const char* from, const char* to) {
        Expect(Ask("watch " + std::string(from) + "\r\n"), "WATCHING");
        Expect(Ask("ignore default\r\n"), "WATCHING");
        Expect(Ask("use " + std::string(to) + "\r\n"), "USING");
    }
    void Put(const std::string& text) {
        Expect(Ask("put 0 0 60 " + std::to_string(text.size()) + "\r\n" + text + "\r\n"), "INSERTED");
    }
    // The next job's text, and its number for Delete.
    std::string Reserve(std::string* number) {
        const std::string head = Ask("reserve\r\n");
        Expect(head, "RESERVED");
        const std::size_t second = head.find(' ', 9);
        *number = head.substr(9, second - 9);
        const std::size_t size = std::strtoul(head.c_str() + second + 1, nullptr, 10);
        while (m_input.size() < size + 2) Check(ReadSome(m_socket, &m_input), "beanstalkd closed");
        std::string text = m_input.substr(0, size);
        m_input.erase(0, size + 2);
        return text;
    }
    void Delete(const std::string& number) { Expect(Ask("delete " + number + "\r\n"), "DELETED"); }

  private:
    std::string Ask(const std::string& request) {
        WriteAll(m_socket, request);
        std::size_t end = 0;
        while ((end = m_input.find("\r\n")) == std::string::npos)
            if (!ReadSome(m_socket, &m_input)) std::exit(0);
        std::string line = m_input.substr(0, end);
        m_input.erase(0, end + 2);
        return line;
    }
    static void Expect(const std::string& line, const char* begin) {
        if (line.rfind(begin, 0) != 0) Die("beanstalkd answered: " + line);
    }

    const int m_socket;
    std::string m_input;
};

int Drain(Client& client, unsigned count) {
    const Time begin = Now();
    std::string number;
    for (unsigned i = 0; i < count; ++i) {
        Check(client.Reserve(&number) == TaskText(i), "a job came out of turn");
        client.Delete(number);
    }
    std::printf("%.1f\n", count / Seconds(begin, Now()));
    return 0;
}

void Work(Client& client) {
    for (std::string number;;) {
        const std::string text = client.Reserve(&number);
        client.Put(text);
        client.Delete(number);
    }
}

int Single(Client& client, unsigned count) {
    std::vector<double> seconds;
    std::string number;
    for (unsigned i = 0; i < kWarmUp + count; ++i) {
        const Time begin = Now();
        client.Put(TaskText(i));
        const std::string text = client.Reserve(&number);
        if (i >= kWarmUp) seconds.push_back(Seconds(begin, Now()));
        Check(text == TaskText(i), "another job ended");
        client.Delete(number);
    }
    PrintMedianAnd99th_us(seconds);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Check(argc >= 3, "usage: beanstalk fill|drain|work|single PORT [COUNT]");
    const std::string_view mode = argv[1];
    Client client(static_cast<std::uint16_t>(std::strtoul(argv[2], nullptr, 10)));
    const auto count = static_cast<unsigned>(argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 0);
    if (mode == "single")
        client.Tubes("done", "work");
    else
        client.Tubes("work", mode == "work" ? "done" : "work");
    if (mode == "fill") {
        for (unsigned i = 0; i < count; ++i) client.Put(TaskText(i));
        return 0;
    }
    if (mode == "drain") return Drain(client, count);
    if (mode == "single") return Single(client, count);
    if (mode == "work") Work(client);
    Die("there is no such mode");
}
