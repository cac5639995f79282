#include "ctl/engine_access.h"

#include <gtest/gtest.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/write.hpp>
#include <thread>

#include "base/paths.h"
#include "kit/temp_dir.h"

namespace rq::ctl {
namespace {

using boost::asio::ip::tcp;

// A server that answers each connection with one text and closes it; it keeps what it was asked.
class OneAnswer {
  public:
    explicit OneAnswer(std::string answer, int connections = 1) : m_answer(std::move(answer)) {
        m_thread = std::thread([this, connections] {
            for (int i = 0; i < connections; ++i) Serve();
        });
    }
    ~OneAnswer() { m_thread.join(); }
    OneAnswer(const OneAnswer&) = delete;
    OneAnswer& operator=(const OneAnswer&) = delete;
    std::uint16_t Port() const { return m_acceptor.local_endpoint().port(); }
    std::string asked;

  private:
    void Serve() {
        tcp::socket socket(m_io);
        m_acceptor.accept(socket);
        boost::system::error_code error;
        boost::asio::read_until(socket, boost::asio::dynamic_buffer(asked), "\r\n\r\n", error);
        boost::asio::write(socket, boost::asio::buffer(m_answer), error);
    }
    std::string m_answer;
    boost::asio::io_context m_io;
    tcp::acceptor m_acceptor{m_io, {boost::asio::ip::address_v4::loopback(), 0}};
    std::thread m_thread;
};

std::string Http(const std::string& status, const std::string& body) {
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nConnection: close\r\n\r\n" + body;
}

class EngineAccessTest : public testing::Test {
  protected:
    void Announce(std::uint16_t port) {
        m_folder.Write("engine.json", "{\"http_port\": " + std::to_string(port) + "}\n");
        m_folder.Write("engine.token", "secret\n");
    }
    Failure OpenFailure() {
        const auto engine = EngineAccess::Open(m_folder.Utf8());
        EXPECT_FALSE(engine);
        return engine.error();
    }
    // Of one GET that is answered like this.
    Failure GetFailure(const std::string& answer) {
        OneAnswer server(answer);
        Announce(server.Port());
        auto engine = EngineAccess::Open(m_folder.Utf8());
        const auto document = (*engine)->Get("/x");
        EXPECT_FALSE(document);
        return document.error();
    }

    kit::TempDir m_folder;
};

TEST_F(EngineAccessTest, WithoutAnEngineItSaysHowToStartOne) {
    const auto failure = OpenFailure();
    EXPECT_EQ(failure.exitCode, kExitNoEngine);
    // The folder has blanks in its name.
    const std::string quote = PathSeparator() == L'\\' ? "\"" : "'";
    EXPECT_NE(failure.message.find("rqengine --data " + quote + m_folder.Utf8() + quote), std::string::npos)
        << failure.message;
}

TEST_F(EngineAccessTest, DamagedFilesAreNamed) {
    m_folder.Write("engine.json", "{}");
    EXPECT_NE(OpenFailure().message.find("engine.json"), std::string::npos);
    m_folder.Write("engine.json", "{\"http_port\": 1}");
    EXPECT_NE(OpenFailure().message.find("engine.token"), std::string::npos);
}

TEST_F(EngineAccessTest, AnEngineThatIsGoneIsNoEngine) {
    std::uint16_t port = 0;
    {
        boost::asio::io_context io;
        port = tcp::acceptor(io, {boost::asio::ip::address_v4::loopback(), 0}).local_endpoint().port();
    }
    Announce(port);
    auto engine = EngineAccess::Open(m_folder.Utf8());
    ASSERT_TRUE(engine);
    const auto answer = (*engine)->Get("/api/v1/health");
    ASSERT_FALSE(answer);
    EXPECT_EQ(answer.error().exitCode, kExitNoEngine);
    EXPECT_NE(answer.error().message.find("rqengine --data"), std::string::npos);
}

TEST_F(EngineAccessTest, SendsTheTokenAndReadsTheDocument) {
    OneAnswer server(Http("200 OK", "{\"a\":1}"));
    Announce(server.Port());
    auto engine = EngineAccess::Open(m_folder.Utf8());
    const auto document = (*engine)->Get("/api/v1/health");
    ASSERT_TRUE(document) << document.error().message;
    EXPECT_EQ((*document)["a"], 1);
    EXPECT_NE(server.asked.find("Authorization: Bearer secret\r\n"), std::string::npos);
    EXPECT_NE(server.asked.find("Host: 127.0.0.1:" + std::to_string(server.Port()) + "\r\n"),
              std::string::npos);
}

TEST_F(EngineAccessTest, RefusalsKeepTheEnginesWords) {
    auto failure =
        GetFailure(Http("404 Not Found", R"({"error":{"code":"c","message":"no task","field":null}})"));
    EXPECT_EQ(failure.exitCode, kExitFailed);
    EXPECT_EQ(failure.message, "no task");
    failure = GetFailure(Http("400 Bad Request", R"({"error":{"message":"type: bad"}})"));
    EXPECT_EQ(failure.exitCode, kExitUsage);
    failure = GetFailure(Http("409 Conflict", R"({"error":{"message":"t1 is queued: ..."}})"));
    EXPECT_EQ(failure.exitCode, kExitRefused);
    EXPECT_EQ(failure.message, "t1 is queued: ...");
    failure = GetFailure(Http("401 Unauthorized", "{}"));
    EXPECT_EQ(failure.exitCode, kExitNoEngine);
    EXPECT_NE(failure.message.find("engine.token"), std::string::npos);
    EXPECT_EQ(GetFailure(Http("500 X", "oops")).message, "the engine answered with HTTP status 500");
    EXPECT_EQ(GetFailure(Http("200 OK", "oops")).message, "the engine's answer is not JSON");
    EXPECT_EQ(GetFailure("junk\r\n\r\n").exitCode, kExitNoEngine);
}

TEST(EncodeSegment, EscapesEverythingThatAPathWouldRead) {
    EXPECT_EQ(EncodeSegment("t12"), "t12");
    EXPECT_EQ(EncodeSegment("../a b?c#片"), "..%2Fa%20b%3Fc%23%E7%89%87");
}

}  // namespace
}  // namespace rq::ctl
