#include "link/spool_file.h"

#include <gtest/gtest.h>

#include "link/codec.h"

namespace rq::link {
namespace {

std::string Body(std::uint32_t status) {
    EngineStateMessage message{4009, "state", "Worker", "Lite/Agent", {}};
    message.entries.emplace_back().status = status;
    message.entries[0].taskId = "T-1";
    return *EncodeWorkerRecord(TCP_WORKER_STATE_ID, &message);
}

// With the check that belongs to it, worked out bit by bit.
std::string Checked(const std::string& content) {
    std::uint32_t check = 0xFFFFFFFF;
    for (const char c : content) {
        check ^= static_cast<unsigned char>(c);
        for (int bit = 0; bit < 8; ++bit) check = check >> 1 ^ (0xEDB88320 & (0 - (check & 1)));
    }
    check = ~check;
    std::string bytes = content;
    for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<char>(check >> (8 * i) & 0xFF));
    return bytes;
}

std::string ErrorOf(const std::string& bytes) {
    const Result<SpooledStatus> status = DecodeSpoolFile(bytes);
    return status ? "" : status.error().message;
}

TEST(SpoolFile, HoldsAFinalStatusWithItsNumber) {
    for (const std::uint32_t status : {0u, 4u, 5u}) {
        const std::string bytes = EncodeSpoolFile(300, Body(status));
        EXPECT_EQ(bytes, Checked(*EncodeFrame({300, 0, TCP_WORKER_STATE_ID, Body(status)})));
        const Result<SpooledStatus> read = DecodeSpoolFile(bytes);
        ASSERT_TRUE(read) << read.error().message;
        EXPECT_EQ(read->seq, 300u);
        ASSERT_EQ(read->message.entries.size(), 1u);
        EXPECT_EQ(read->message.entries[0].status, status);
        EXPECT_EQ(read->message.entries[0].taskId, "T-1");
    }
}

TEST(SpoolFile, NamesTheStatusBeforeAndSaysWhetherItIsARepeat) {
    std::string body = Body(4);
    auto read = DecodeSpoolFile(EncodeSpoolFile(300, body));
    ASSERT_TRUE(read);
    EXPECT_EQ(read->previous, 0u);
    EXPECT_FALSE(read->isRepeat);
    MarkRepeat(body);
    read = DecodeSpoolFile(EncodeSpoolFile(300, body, 299));
    ASSERT_TRUE(read);
    EXPECT_EQ(read->previous, 299u);
    EXPECT_TRUE(read->isRepeat);
}

TEST(SpoolFile, OneWrongBitOrAMissingByteIsFound) {
    const std::string good = EncodeSpoolFile(7, Body(0));
    for (std::size_t i = 0; i < good.size(); ++i) {
        for (int bit = 0; bit < 8; ++bit) {
            std::string bad = good;
            bad[i] = static_cast<char>(bad[i] ^ 1 << bit);
            EXPECT_NE(ErrorOf(bad), "") << i << " " << bit;
        }
        EXPECT_NE(ErrorOf(good.substr(0, i)), "") << i;
    }
    EXPECT_NE(ErrorOf(good + '\0'), "");
}

TEST(SpoolFile, WhatFitsTheCheckMustBeOneFinalStatusToo) {
    const auto frame = [](std::uint64_t seq, std::uint32_t id, const std::string& body) {
        return *EncodeFrame({seq, 0, id, body});
    };
    const std::string good = frame(7, 4009, Body(0));
    EXPECT_EQ(ErrorOf(Checked(good)), "");
    EXPECT_EQ(ErrorOf(Checked(good + good)), "it does not hold exactly one frame");
    EXPECT_EQ(ErrorOf(Checked(good.substr(0, good.size() - 1))), "it does not hold exactly one frame");
    EXPECT_EQ(ErrorOf(Checked(frame(7, 4009, Body(3)))), "the status in it is not final");
    EXPECT_EQ(ErrorOf(Checked(frame(7, 4008, Body(0)))), "it holds 4008 with seq 7");
    EXPECT_EQ(ErrorOf(Checked(frame(0, 4009, Body(0)))), "it holds 4009 with seq 0");
    EXPECT_EQ(ErrorOf(Checked(frame(7, 4009, "\xFF"))), "the body of 4009 cannot be decoded");
    EXPECT_EQ(ErrorOf(Checked(std::string("\3\0\0\0\xFF\xFF\xFF", 7))),
              "it holds a frame of 3 bytes that is no Frame message");
    EXPECT_EQ(ErrorOf(""), "0 bytes are too few");
    EXPECT_EQ(ErrorOf(std::string(8, '\0')), "8 bytes are too few");
    EXPECT_EQ(ErrorOf(std::string(kFrameLimit_bytes + 9, '\0')), "16777225 bytes are too many");
}

TEST(SpoolFile, TheLargestStatusIsRead) {
    EngineStateMessage message{4009, "state", "Worker", "Lite/Agent", {}};
    message.entries.emplace_back().furtherText = std::string(kFrameLimit_bytes - 200, 'f');
    const std::string bytes = EncodeSpoolFile(UINT64_MAX, *EncodeWorkerRecord(TCP_WORKER_STATE_ID, &message));
    EXPECT_LE(bytes.size(), kSpoolLimit_bytes);
    EXPECT_GT(bytes.size(), kSpoolLimit_bytes - 200);
    EXPECT_EQ(ErrorOf(bytes), "");
}

TEST(SpoolFile, OnlyPlainAttemptsNameFiles) {
    for (const char* good : {"1", "17", "a-b_C9", "-"}) EXPECT_TRUE(IsSpoolAttempt(good)) << good;
    EXPECT_TRUE(IsSpoolAttempt(std::string(64, 'z')));
    EXPECT_FALSE(IsSpoolAttempt(std::string(65, 'z')));
    for (const char* bad : {"", ".", "..", "a/b", "a\\b", "a.b", "c:", "a b", "\xE4\xBB\xBB", "a\n"})
        EXPECT_FALSE(IsSpoolAttempt(bad)) << bad;
    EXPECT_FALSE(IsSpoolAttempt(std::string_view("a\0b", 3)));
}

}  // namespace
}  // namespace rq::link
