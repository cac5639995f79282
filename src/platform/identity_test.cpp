#include "platform/identity.h"

#include <gtest/gtest.h>

#include <set>

namespace rq::platform {
namespace {

TEST(Identity, GuidsAreRandomOfVersion4) {
    std::set<std::uint32_t> seen;
    for (int i = 0; i < 100; ++i) {
        const Guid guid = CreateGuid();
        EXPECT_EQ(guid.data3 >> 12, 4);
        EXPECT_EQ(guid.data4[0] >> 6, 2);
        seen.insert(guid.data1);
    }
    EXPECT_GT(seen.size(), 90u);
}

TEST(Identity, RandomHexadecimalText) {
    const std::string text = RandomHex(16);
    EXPECT_EQ(text.size(), 32u);
    EXPECT_EQ(text.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_NE(text, RandomHex(16));
    EXPECT_EQ(RandomHex(0), "");
}

}  // namespace
}  // namespace rq::platform
