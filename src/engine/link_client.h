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
        hello.processId = 4711;
        hello.workerVersion = "test";
        SendFrame({0, 0, link::kHelloId, link::EncodeHello(hello)});
        const auto answer = ReadFrame();
        if (!answer) return std::nullopt;
        if (answer->id == link::kRefuseId) return link::DecodeRefuse(answer->body)->code;
        m_session = link::DecodeWelcome(answer->body)->sessionId;
        return 0;
    }

    // The seq of the record.
    std::uint64_t Send(std::uint32_t id, const link::WorkerRecord& record) {
        SendFrame({++m_sent, m_got, id, link::EncodeWorkerRecord(id, record).value()});
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
    std::uint32_t SessionId() const { return m_session; }

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
    std::uint32_t m_session = 0;
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
