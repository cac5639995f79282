// LinkClient: the worker's end of the engine link, blocking and simple, for tests. One thread.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <deque>
#include <optional>
#include <string>

#include "link/codec.h"

namespace rq::engine {

class LinkClient {
  public:
    bool Connect(std::uint16_t port) {
        boost::system::error_code error;
        m_socket.connect({boost::asio::ip::address_v4::loopback(), port}, error);
        return !error;
    }

    // HELLO and its answer: 0 when welcomed, else the code of the refusal; nothing when the connection broke.
    std::optional<std::uint32_t> Greet(const std::string& token, const std::string& attempt,
                                       std::uint32_t version = link::kProtocolVersion) {
        link::Hello hello;
        hello.protocolVersion = version;
        hello.token = token;
        hello.attempt = attempt;
        return Greet(hello);
    }
    std::optional<std::uint32_t> Greet(link::Hello hello) {
        hello.processId = m_process;
        hello.workerVersion = "test";
        SendFrame({0, m_got, link::kHelloId, link::EncodeHello(hello)});
        const auto answer = ReadFrame();
        if (!answer) return std::nullopt;
        if (answer->id == link::kRefuseId) return link::DecodeRefuse(answer->body)->code;
        m_welcome = link::DecodeWelcome(answer->body).value();
        return 0;
    }

    // What a HELLO says that continues the session.
    link::Hello Resuming(const std::string& token) const {
        link::Hello hello;
        hello.token = token;
        hello.attempt = m_welcome.attempt;
        hello.resumeSessionId = m_welcome.sessionId;
        hello.resumeReceived = m_got;
        hello.resumeAcknowledged = m_acked;
        return hello;
    }
    // A new connection that continues the session; as Greet. What is not acknowledged is sent again.
    std::optional<std::uint32_t> Resume(std::uint16_t port, const std::string& token) {
        Close();
        m_socket = boost::asio::ip::tcp::socket(m_io);
        m_reader = link::FrameReader();
        if (!Connect(port)) return std::nullopt;
        const auto code = Greet(Resuming(token));
        if (code != 0u) return code;
        while (!m_kept.empty() && m_kept.front().seq <= m_acked) m_kept.pop_front();
        for (const auto& frame : m_kept) SendFrame(frame);
        return 0;
    }

    // The seq of the record.
    std::uint64_t Send(std::uint32_t id, const link::WorkerRecord& record) {
        m_kept.push_back({++m_sent, m_got, id, link::EncodeWorkerRecord(id, record).value()});
        SendFrame(m_kept.back());
        return m_sent;
    }
    std::uint64_t SendBody(std::uint32_t id, const std::string& body) {
        SendFrame({++m_sent, m_got, id, body});
        return m_sent;
    }
    bool SendFrame(const link::Frame& frame) { return SendBytes(link::EncodeFrame(frame).value()); }
    bool SendBytes(const std::string& bytes) {
        boost::system::error_code error;
        boost::asio::write(m_socket, boost::asio::buffer(bytes), error);
        return !error;
    }

    // True when everything up to `seq` is acknowledged; false when the connection ended before.
    bool WaitAck(std::uint64_t seq) {
        while (m_acked < seq) {
            if (!ReadFrame()) return false;
        }
        return true;
    }
    // The next order; nothing when the connection ended before.
    std::optional<link::Frame> WaitOrder() {
        while (m_orders.empty()) {
            if (!ReadFrame()) return std::nullopt;
        }
        auto order = std::move(m_orders.front());
        m_orders.pop_front();
        return order;
    }
    // Until the engine closes. True when it said BYE before.
    bool WaitClose() {
        while (ReadFrame()) {
        }
        return m_bye;
    }
    void Close() {
        boost::system::error_code ignored;
        m_socket.close(ignored);
    }
    // Whatever comes until the engine closes, as bytes.
    std::string ReadAll() {
        std::string bytes;
        boost::system::error_code error;
        boost::asio::read(m_socket, boost::asio::dynamic_buffer(bytes), error);
        return bytes;
    }
    // Bytes that have come and were not read.
    std::size_t Unread() const { return m_socket.available(); }
    std::uint32_t SessionId() const { return m_welcome.sessionId; }
    const link::Welcome& Welcome() const { return m_welcome; }
    std::uint64_t Acked() const { return m_acked; }
    std::uint64_t Sent() const { return m_sent; }
    // Of the HELLOs from now on.
    void SetProcess(std::uint64_t id) { m_process = id; }

    // Any frame, orders included; nothing when the connection ended.
    std::optional<link::Frame> ReadFrame() {
        link::Frame frame;
        for (;;) {
            const auto status = m_reader.Next(&frame);
            if (status == link::FrameReader::Status::Bad) return std::nullopt;
            if (status == link::FrameReader::Status::Ready) break;
            char bytes[4096];
            boost::system::error_code error;
            const std::size_t size = m_socket.read_some(boost::asio::buffer(bytes), error);
            if (error) return std::nullopt;
            m_reader.Feed({bytes, size});
        }
        m_acked = std::max(m_acked, frame.ack);
        if (frame.id == link::kByeId) m_bye = true;
        if (frame.seq != 0) {
            m_got = frame.seq;
            m_orders.push_back(frame);
        }
        return frame;
    }

  private:
    boost::asio::io_context m_io;
    boost::asio::ip::tcp::socket m_socket{m_io};
    link::FrameReader m_reader;
    std::deque<link::Frame> m_orders;
    std::uint64_t m_sent = 0, m_got = 0, m_acked = 0;
    std::deque<link::Frame> m_kept;  // sent, not dropped yet
    std::uint64_t m_process = 4711;
    link::Welcome m_welcome;
    bool m_bye = false;
};

inline EngineStateMessage StateMessage(std::uint32_t status) {
    EngineStateMessage message;
    message.kind = "state";
    message.sender = "Worker";
    message.receiver = "Lite/Agent";
    message.entries.emplace_back();
    message.entries.back().status = status;
    message.entries.back().taskType = RQ_TASK_MD5_COMPUTE;
    return message;
}

inline EngineProgressMessage ProgressMessage(float percent, float speed) {
    EngineProgressMessage message;
    message.kind = "process";
    message.entries.push_back({"", "", "", percent, speed});
    return message;
}

}  // namespace rq::engine
