#include "ctl/http_client.h"
#include "platform/error_text.h"

#include <boost/asio/io_context.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>

namespace rq::ctl {

namespace {

namespace beast = boost::beast;
namespace http = boost::beast::http;
using boost::asio::ip::tcp;

constexpr std::uint64_t kAnswerLimit_bytes = 256u * 1024 * 1024;

}  // namespace

// The calls look blocking from outside; inside they are asynchronous ones, since only those can be timed.
struct HttpClient::Connection {
    Connection(std::uint16_t number, std::string secret) : port(number), token(std::move(secret)) {}

    beast::error_code Finish(beast::error_code& result) {
        io.restart();
        io.run();
        return result;
    }

    beast::error_code Connect(std::chrono::milliseconds limit) {
        buffer.clear();
        stream.emplace(io);
        stream->expires_after(limit);
        beast::error_code result;
        stream->async_connect(tcp::endpoint(boost::asio::ip::address_v4::loopback(), port),
                              [&](const beast::error_code& error) { result = error; });
        return Finish(result);
    }

    beast::error_code Exchange(http::request<http::string_body>& request,
                               http::response_parser<http::string_body>& answer,
                               std::chrono::milliseconds limit) {
        stream->expires_after(limit);
        beast::error_code result;
        http::async_write(*stream, request, [&](const beast::error_code& error, std::size_t) {
            result = error;
            if (error) return;
            http::async_read(*stream, buffer, answer,
                             [&](const beast::error_code& failed, std::size_t) { result = failed; });
        });
        return Finish(result);
    }

    std::uint16_t port;
    std::string token;
    boost::asio::io_context io{1};
    std::optional<beast::tcp_stream> stream;
    beast::flat_buffer buffer;
};

HttpClient::HttpClient(std::uint16_t port, std::string token)
    : m_connection(std::make_unique<Connection>(port, std::move(token))) {}

HttpClient::~HttpClient() = default;

Result<HttpAnswer> HttpClient::Send(const std::string& method, const std::string& target,
                                    const std::string& body, std::chrono::milliseconds limit) {
    Connection& connection = *m_connection;
    http::request<http::string_body> request;
    request.method_string(method);
    request.target(target);
    request.set(http::field::host, "127.0.0.1:" + std::to_string(connection.port));
    request.set(http::field::authorization, "Bearer " + connection.token);
    if (!body.empty()) request.set(http::field::content_type, "application/json");
    request.body() = body;
    request.prepare_payload();

    const bool kept = connection.stream.has_value();
    for (bool again : {false, true}) {
        beast::error_code error;
        if (!connection.stream) error = connection.Connect(limit);
        http::response_parser<http::string_body> answer;
        answer.body_limit(kAnswerLimit_bytes);
        if (!error) error = connection.Exchange(request, answer, limit);
        if (!error) {
            HttpAnswer result{answer.get().result_int(), answer.get().body()};
            if (!answer.get().keep_alive()) connection.stream.reset();
            return result;
        }
        connection.stream.reset();
        // Only what the engine certainly has not begun to read may be sent twice.
        const bool unread = kept && !again && !answer.got_some() && error == http::error::end_of_stream;
        if (!unread) return Fail(platform::ErrorText(error));
    }
    return Fail("the connection was closed");
}

}  // namespace rq::ctl
