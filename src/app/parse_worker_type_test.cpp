#include "app/parse_worker_type.h"

#include <gtest/gtest.h>

namespace rq {
namespace {

TEST(ParseWorkerType, Codes) {
    EXPECT_EQ(ParseWorkerType("tc"), 1);
    EXPECT_EQ(ParseWorkerType("tf"), 0);
    EXPECT_EQ(ParseWorkerType("vac"), 2);
    EXPECT_EQ(ParseWorkerType("mc"), 3);
    EXPECT_EQ(ParseWorkerType("mv"), 4);
    EXPECT_EQ(ParseWorkerType("gfs"), 5);
    EXPECT_EQ(ParseWorkerType("rp"), 6);
    EXPECT_EQ(ParseWorkerType("df"), 7);
    EXPECT_EQ(ParseWorkerType("itc"), 8);
    EXPECT_EQ(ParseWorkerType("irc"), 9);
    EXPECT_EQ(ParseWorkerType("afd"), 10);
    EXPECT_EQ(ParseWorkerType("lc"), 12);
    EXPECT_EQ(ParseWorkerType("kf"), 13);
}

TEST(ParseWorkerType, CodesAreExact) {
    for (const char* text : {"TC", "Mc", "mcx", "tc ", " tc", "", "mix", "pd", "fc", "abc"}) {
        EXPECT_EQ(ParseWorkerType(text), 0) << text;
    }
}

TEST(ParseWorkerType, Numbers) {
    EXPECT_EQ(ParseWorkerType("0"), 0);
    EXPECT_EQ(ParseWorkerType("14"), 14);
    EXPECT_EQ(ParseWorkerType("23"), 23);
    EXPECT_EQ(ParseWorkerType("299"), 299);
    EXPECT_EQ(ParseWorkerType("300"), 300);
    EXPECT_EQ(ParseWorkerType("-1"), -1);
    EXPECT_EQ(ParseWorkerType(" +7x"), 7);
    EXPECT_EQ(ParseWorkerType("3mc"), 3);
}

TEST(ParseWorkerType, NumbersThatDoNotFitAreClamped) {
    EXPECT_EQ(ParseWorkerType("99999999999999999999999"), 2147483647);
    EXPECT_EQ(ParseWorkerType("-99999999999"), -2147483647 - 1);
}

}  // namespace
}  // namespace rq
