// One HTTP/1.1 connection: reads a request, has the Api answer it, writes the answer, and goes on until
// either side has enough. Runs on the I/O thread; keeps itself alive while it has something to do. The only
// place that knows Boost.Beast.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <memory>

#include "engine/api.h"
#include "engine/places.h"

namespace rq::engine {

void ServeHttp(boost::asio::ip::tcp::socket socket, Api& api, std::unique_ptr<Place> place);

}  // namespace rq::engine
