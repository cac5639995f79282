#include "plugin_common/digest.h"

#include <gtest/gtest.h>

TEST(Digest, KnowsTheTestValues) {
    rq::task::Md5 md5;
    rq::task::Md5Digest digest{};
    ASSERT_TRUE(md5.Start());
    ASSERT_TRUE(md5.Finish(digest));
    EXPECT_EQ(digest, rq::task::ParseMd5("d41d8cd98f00b204e9800998ecf8427e"));
    ASSERT_TRUE(md5.Start());
    ASSERT_TRUE(md5.Add("ab", 2));
    ASSERT_TRUE(md5.Add("c", 1));
    ASSERT_TRUE(md5.Finish(digest));
    EXPECT_EQ(digest, rq::task::ParseMd5("900150983CD24FB0D6963F7D28E17F72"));
}

TEST(Digest, Sha256KnowsTheTestValues) {
    rq::task::Sha256 sha256;
    rq::task::Sha256Digest digest{};
    ASSERT_TRUE(sha256.Start());
    ASSERT_TRUE(sha256.Add("ab", 2));
    ASSERT_TRUE(sha256.Add("c", 1));
    ASSERT_TRUE(sha256.Finish(digest));
    EXPECT_EQ(rq::task::HexOf(digest.data(), digest.size()),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(Digest, ParsesOnly32HexadecimalDigits) {
    EXPECT_FALSE(rq::task::ParseMd5(""));
    EXPECT_FALSE(rq::task::ParseMd5("d41d8cd98f00b204e9800998ecf8427"));
    EXPECT_FALSE(rq::task::ParseMd5("d41d8cd98f00b204e9800998ecf8427e0"));
    EXPECT_FALSE(rq::task::ParseMd5("g41d8cd98f00b204e9800998ecf8427e"));
}
