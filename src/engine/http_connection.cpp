#include "engine/http_connection.h"

#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>
#include <memory>
#include <optional>

#include "engine/version.h"

namespace rq::engine {

namespace {

namespace beast = boost::beast;
namespace http = boost::beast::http;

constexpr std::uint32_t kHeaderLimit_bytes = 16 * 1024;
constexpr std::uint64_t kBodyLimit_bytes = 16u * 1024 * 1024;
constexpr std::chrono::seconds kRequestLimit(30);
constexpr std::chrono::seconds kWriteLimit(30);

std::string Field(const http::request<http::string_body>& request, http::field name) {
    const auto found = request.find(name);
    return found != request.end() ? std::string(found->value()) : std::string();
}

class HttpConnection : public std::enable_shared_from_this<HttpConnection> {
  public:
    HttpConnection(boost::asio::ip::tcp::socket socket, Api& api, std::unique_ptr<Place> place)
        : m_stream(std::move(socket)), m_api(api), m_place(std::move(place)) {
        m_place->SetClose([this] { m_stream.close(); });
    }

    void Read() {
        m_parser.emplace();
        m_parser->header_limit(kHeaderLimit_bytes);
        m_parser->body_limit(kBodyLimit_bytes);
        m_stream.expires_after(kRequestLimit);
        http::async_read_header(m_stream, m_buffer, *m_parser,
                                [self = shared_from_this()](const beast::error_code& error, std::size_t) {
                                    self->OnHeader(error);
                                });
    }

  private:
    // Nobody gets a body read who has not shown the token.
    void OnHeader(const beast::error_code& error) {
        if (error) {
            OnBadRequest(error);
            return;
        }
        TakeHeader();
        if (const char* fault = HeaderFault()) {
            m_keepAlive = false;
            Write(MakeError(400, "bad-request", fault));
            return;
        }
        if (auto refusal = m_api.Refuse(m_request)) {
            m_keepAlive = m_keepAlive && m_parser->is_done();
            Write(std::move(*refusal));
            return;
        }
        m_place->BeGuest();
        m_place->Hold(m_parser->is_done() ? 0 : m_parser->content_length().value_or(kBodyLimit_bytes));
        http::async_read(m_stream, m_buffer, *m_parser,
                         [self = shared_from_this()](const beast::error_code& failed, std::size_t) {
                             self->OnRead(failed);
                         });
    }

    // What could be read in two ways, by us and by whatever stands between.
    const char* HeaderFault() const {
        const auto& message = m_parser->get();
        if (message.count(http::field::host) > 1) return "the request has more than one Host field";
        for (const auto& field : message) {
            if (field.name() == http::field::transfer_encoding && !beast::iequals(field.value(), "chunked"))
                return "Transfer-Encoding: only \"chunked\" is understood";
        }
        if (message.count(http::field::transfer_encoding) > 1)
            return "the request has more than one Transfer-Encoding field";
        return nullptr;
    }

    void TakeHeader() {
        const auto& message = m_parser->get();
        m_request = {};
        m_request.method = std::string(message.method_string());
        m_request.target = std::string(message.target());
        m_request.host = Field(message, http::field::host);
        m_request.authorization = Field(message, http::field::authorization);
        m_request.contentType = Field(message, http::field::content_type);
        m_isHead = message.method() == http::verb::head;
        m_keepAlive = message.keep_alive();
    }

    void OnRead(const beast::error_code& error) {
        if (error) {
            OnBadRequest(error);
            return;
        }
        m_request.body = m_parser->release().body();
        // The answer may take a while (an event poll); its own limits apply.
        m_stream.expires_never();
        m_api.Handle(m_request,
                     [self = shared_from_this()](ApiResponse response) { self->Write(std::move(response)); });
        m_request.body = {};
    }

    // Says what was wrong when there is somebody to say it to, and closes.
    void OnBadRequest(const beast::error_code& error) {
        m_keepAlive = false;
        if (error == http::error::body_limit) {
            TakeHeader();
            m_keepAlive = false;
            auto refusal = m_api.Refuse(m_request);
            Write(refusal ? std::move(*refusal) : MakeError(413, "too-large", "the body is over 16 MiB"));
        } else if (error == http::error::header_limit) {
            Write(MakeError(431, "header-too-large", "the header is over 16 KiB"));
        } else if (error.category() == http::make_error_code(http::error::bad_method).category() &&
                   error != http::error::end_of_stream && error != http::error::partial_message) {
            Write(MakeError(400, "bad-request", "not an HTTP request: " + error.message()));
        }
    }

    void Write(ApiResponse answer) {
        m_response = {};
        m_response.version(11);
        m_response.result(answer.status);
        m_response.set(http::field::server, std::string("rqengine/") + kVersion);
        m_response.set(http::field::content_type, "application/json");
        m_response.set(http::field::cache_control, "no-store");
        m_response.set("X-Content-Type-Options", "nosniff");
        for (const auto& [name, value] : answer.headers) m_response.set(name, value);
        m_response.keep_alive(m_keepAlive);
        m_response.content_length(answer.body.size());
        if (!m_isHead) m_response.body() = std::move(answer.body);
        m_place->Hold(m_response.body().size());
        m_stream.expires_after(kWriteLimit);
        http::async_write(m_stream, m_response,
                          [self = shared_from_this()](const beast::error_code& error, std::size_t) {
                              self->OnWritten(error);
                          });
    }

    void OnWritten(const beast::error_code& error) {
        m_response.body() = {};
        m_place->Hold(0);
        if (error) return;
        if (m_keepAlive) {
            Read();
            return;
        }
        beast::error_code ignored;
        m_stream.socket().shutdown(boost::asio::ip::tcp::socket::shutdown_send, ignored);
        Drain();
    }

    // Reads away what still comes for a moment: closing with unread bytes would reset the answer away.
    void Drain() {
        m_buffer.clear();
        m_stream.expires_after(std::chrono::seconds(2));
        m_stream.async_read_some(
            m_buffer.prepare(16 * 1024),
            [self = shared_from_this()](const beast::error_code& error, std::size_t size) {
                self->m_drained += size;
                if (!error && self->m_drained < 2 * kBodyLimit_bytes) self->Drain();
            });
    }

    beast::tcp_stream m_stream;
    Api& m_api;
    std::unique_ptr<Place> m_place;
    beast::flat_buffer m_buffer;
    std::optional<http::request_parser<http::string_body>> m_parser;
    ApiRequest m_request;
    http::response<http::string_body> m_response;
    std::uint64_t m_drained = 0;
    bool m_isHead = false;
    bool m_keepAlive = false;
};

}  // namespace

void ServeHttp(boost::asio::ip::tcp::socket socket, Api& api, std::unique_ptr<Place> place) {
    std::make_shared<HttpConnection>(std::move(socket), api, std::move(place))->Read();
}

}  // namespace rq::engine
