// One HTTP/1.1 connection: reads a request, has the Api answer it, writes the answer, and goes on until
// either side has enough. Runs on the I/O thread; keeps itself alive while it has something to do. The only
// place that knows Boost.Beast.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <functional>

#include "engine/api.h"

namespace rq::engine {

// `onGone` is called once when the connection is closed.
void ServeHttp(boost::asio::ip::tcp::socket socket, Api& api, std::function<void()> onGone);

}  // namespace rq::engine
