// Host names in the server list: a look-up that does not come back holds nobody up.
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>

#include "base/paths.h"
#include "kit/files.h"
#include "kit/temp_dir.h"
#include "link/client_test_kit.h"
#include "platform/error_text.h"

namespace rq::link {
namespace {

using namespace std::chrono_literals;
using boost::asio::ip::tcp;

constexpr std::size_t kLookUpsAtOnce = 4;

class EngineClientLookUp : public ::testing::Test {
  protected:
    EngineClientLookUp() {
        m_options.limits.connect = 150ms;
        m_options.lookUp = [this](const std::string& host, std::uint16_t port,
                                  boost::system::error_code& error) {
            EXPECT_EQ(host, "engine.example");
            ++m_begun;
            std::vector<tcp::endpoint> found = m_answer(port, error);
            ++m_ended;
            return found;
        };
        m_answer = [this](std::uint16_t port, boost::system::error_code&) {
            EXPECT_TRUE(m_gate.Pass());
            return Local(port);
        };
    }
    // The threads use what is the test's until they have counted their end.
    ~EngineClientLookUp() override {
        m_gate.Open();
        EXPECT_TRUE(WaitForEnds(m_begun));
    }
    bool WaitForEnds(std::size_t count) {
        const SteadyTime deadline = SystemClock().Steady() + HandlerRecord::kPatience;
        while (m_ended < count && SystemClock().Steady() < deadline) SystemClock().SleepFor(1ms);
        return m_ended >= count;
    }
    static std::vector<tcp::endpoint> Local(std::uint16_t port) {
        return {tcp::endpoint(boost::asio::ip::address_v4::loopback(), port)};
    }
    std::uint32_t Connect(TestClient& test) {
        const EngineEndpoint endpoint{"engine.example", m_engine.Port()};
        return test.client->Connect(&endpoint);
    }
    bool IsLogged(const std::string& part) const {
        for (const std::string& line : kit::ReadLines(m_path))
            if (line.find(part) != std::string::npos) return true;
        return false;
    }

    kit::TempDir m_folder;
    const std::filesystem::path m_path = m_folder.Path() / "link_C.log";
    kit::ScriptedEngine m_engine;
    EngineClientOptions m_options;
    std::function<std::vector<tcp::endpoint>(std::uint16_t, boost::system::error_code&)> m_answer;
    Gate m_gate;
    std::atomic<std::size_t> m_begun{0};
    std::atomic<std::size_t> m_ended{0};
};

TEST_F(EngineClientLookUp, ThatHangsHoldsNeitherConnectNorTheEndUp) {
    {
        TestClient test(m_options, WideFromPath(m_path));
        EXPECT_EQ(Connect(test), kNoSession);
    }
    EXPECT_EQ(m_begun, 1u);
    EXPECT_EQ(m_ended, 0u);
    EXPECT_TRUE(IsLogged(" failed: no answer within 150 ms"));
    EXPECT_EQ(m_engine.Connections(), 0u);
}

TEST_F(EngineClientLookUp, ThatComesLateIsNotUsed) {
    TestClient test(m_options);
    EXPECT_EQ(Connect(test), kNoSession);
    m_gate.Open();
    EXPECT_TRUE(WaitForEnds(1));
    SystemClock().SleepFor(20ms);
    EXPECT_EQ(m_engine.Connections(), 0u);
    EXPECT_EQ(Connect(test), 1u);  // by a look-up of its own
    EXPECT_EQ(m_begun, 2u);
}

TEST_F(EngineClientLookUp, IsNotBegunWhileAFewHang) {
    m_options.limits.connect = 50ms;
    TestClient test(m_options, WideFromPath(m_path));
    for (std::size_t attempt = 1; attempt <= kLookUpsAtOnce + 2; ++attempt)
        EXPECT_EQ(Connect(test), kNoSession);
    EXPECT_GE(m_begun, 1u);
    EXPECT_LE(m_begun, kLookUpsAtOnce);
    const boost::system::error_code refused = boost::asio::error::already_started;
    EXPECT_TRUE(IsLogged(" failed: resolve: " + platform::ErrorText(refused)));
    m_gate.Open();
    const SteadyTime deadline = SystemClock().Steady() + HandlerRecord::kPatience;
    while (Connect(test) == kNoSession && SystemClock().Steady() < deadline) {
    }
    EXPECT_EQ(m_engine.Connections(), 1u);
}

TEST_F(EngineClientLookUp, ThatFindsNothingFailsTheAttempt) {
    m_options.limits.connect = 1h;
    m_answer = [](std::uint16_t, boost::system::error_code& error) {
        error = boost::asio::error::host_not_found;
        return std::vector<tcp::endpoint>();
    };
    TestClient test(m_options, WideFromPath(m_path));
    EXPECT_EQ(Connect(test), kNoSession);
    EXPECT_TRUE(IsLogged(" failed: resolve: "));
}

TEST_F(EngineClientLookUp, ThatThrowsIsOneWithoutAnAnswer) {
    m_answer = [this](std::uint16_t, boost::system::error_code&) -> std::vector<tcp::endpoint> {
        ++m_ended;
        throw std::runtime_error("odd");
    };
    TestClient test(m_options, WideFromPath(m_path));
    EXPECT_EQ(Connect(test), kNoSession);
    EXPECT_TRUE(IsLogged(" failed: no answer within 150 ms"));
}

}  // namespace
}  // namespace rq::link
