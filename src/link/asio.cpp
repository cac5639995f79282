// Boost.Asio is compiled here and nowhere else; everyone who includes it links rq_asio.
#include <boost/asio/impl/src.hpp>
