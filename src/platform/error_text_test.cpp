#include "platform/error_text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <boost/asio/error.hpp>
#include <system_error>

namespace rq::platform {
namespace {

bool IsAscii(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x80; });
}

// On a Chinese Windows, as in one of the test runs, the libraries' own texts are Chinese in GBK.
TEST(ErrorText, OfASystemsCodeIsEnglish) {
    const boost::system::error_code refused = boost::asio::error::connection_refused;
    EXPECT_EQ(ErrorText(refused), SystemErrorText(refused.value()));
    EXPECT_NE(ErrorText(refused), "");
    EXPECT_TRUE(IsAscii(ErrorText(refused))) << ErrorText(refused);
    const std::error_code reset(boost::asio::error::connection_reset, std::system_category());
    EXPECT_EQ(ErrorText(reset), SystemErrorText(reset.value()));
    EXPECT_NE(ErrorText(reset), ErrorText(refused));
    EXPECT_TRUE(IsAscii(ErrorText(reset))) << ErrorText(reset);
}

TEST(ErrorText, OfAnotherCategoryIsTheLibrarys) {
    const boost::system::error_code end = boost::asio::error::eof;
    EXPECT_EQ(ErrorText(end), end.message());
    const std::error_code generic = std::make_error_code(std::errc::permission_denied);
    EXPECT_EQ(ErrorText(generic), generic.message());
}

}  // namespace
}  // namespace rq::platform
