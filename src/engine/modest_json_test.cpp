#include "engine/modest_json.h"

#include <gtest/gtest.h>

#include <string>

namespace rq::engine {
namespace {

TEST(ModestJson, NeitherDeepNorWide) {
    EXPECT_TRUE(IsModestJson("{\"a\": [1, 2, {\"b\": \"c\"}]}"));
    EXPECT_TRUE(
        IsModestJson("\"" + std::string(1'000'000, '[') + ",\\\"" + std::string(1'000'000, ',') + "\""));
    EXPECT_TRUE(IsModestJson(std::string(32, '[')));
    EXPECT_FALSE(IsModestJson(std::string(33, '[')));
    EXPECT_FALSE(IsModestJson("[0" + std::string(100'001, ',')));
    EXPECT_TRUE(IsModestJson("no JSON at all ]]]]]] \\"));
}

}  // namespace
}  // namespace rq::engine
