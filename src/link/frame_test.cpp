#include "link/frame.h"

#include <gtest/gtest.h>

#include <random>

namespace rq::link {
namespace {

std::string Encoded(const Frame& frame) {
    Result<std::string> bytes = EncodeFrame(frame);
    EXPECT_TRUE(bytes.has_value());
    return bytes ? *bytes : std::string{};
}

void ExpectEqual(const Frame& left, const Frame& right) {
    EXPECT_EQ(left.seq, right.seq);
    EXPECT_EQ(left.ack, right.ack);
    EXPECT_EQ(left.id, right.id);
    EXPECT_EQ(left.body, right.body);
}

std::string WithLength(const std::string& bytes) {
    std::string out;
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<char>(bytes.size() >> (8 * i) & 0xFF));
    return out + bytes;
}

TEST(Frame, RoundTripWhateverThePieces) {
    const std::vector<Frame> frames = {{0, 0, kHelloId, "x"},
                                       {1, 0, 4001, std::string("\0\xFF\x80", 3)},
                                       {~0ull, ~0ull, ~0u, std::string(1000, 'a')},
                                       {0, 7, kAckId, {}}};
    std::string stream;
    for (const Frame& frame : frames) stream += Encoded(frame);
    for (std::size_t piece = 1; piece <= stream.size(); ++piece) {
        FrameReader reader;
        std::size_t count = 0;
        for (std::size_t at = 0; at < stream.size(); at += piece) {
            reader.Feed(std::string_view(stream).substr(at, piece));
            Frame frame;
            while (reader.Next(&frame) == FrameReader::Status::Ready) {
                ASSERT_LT(count, frames.size());
                ExpectEqual(frame, frames[count++]);
            }
        }
        ASSERT_EQ(count, frames.size()) << "pieces of " << piece;
        ASSERT_EQ(reader.Buffered(), 0u);
    }
}

TEST(Frame, TheLargestBodyFitsWhateverItsNumbers) {
    std::size_t size = kFrameLimit_bytes;
    while (!BodyFits(size)) --size;
    EXPECT_GT(size, kFrameLimit_bytes - 64);
    FrameReader reader;
    reader.Feed(Encoded({~0ull, ~0ull, ~0u, std::string(size, 'b')}));
    Frame frame;
    ASSERT_EQ(reader.Next(&frame), FrameReader::Status::Ready);
    EXPECT_EQ(frame.body.size(), size);
    EXPECT_FALSE(EncodeFrame({1, 1, 4001, std::string(size + 1, 'b')}).has_value());
}

TEST(Frame, LengthZeroIsBadAndStaysBad) {
    FrameReader reader;
    reader.Feed(std::string(4, '\0'));
    Frame frame;
    EXPECT_EQ(reader.Next(&frame), FrameReader::Status::Bad);
    EXPECT_NE(reader.Problem().find("length 0"), std::string::npos);
    reader.Feed(Encoded({1, 0, 4001, {}}));
    EXPECT_EQ(reader.Next(&frame), FrameReader::Status::Bad);
    EXPECT_EQ(reader.Buffered(), 0u);
}

TEST(Frame, TheLimitIsTakenExactlyAndJudgedByTheLengthAlone) {
    Frame frame;
    FrameReader fits(100);
    fits.Feed(std::string("\x64\0\0\0", 4));
    EXPECT_EQ(fits.Next(&frame), FrameReader::Status::NeedMore);
    FrameReader over(100);
    over.Feed(std::string("\x65\0\0\0", 4));
    EXPECT_EQ(over.Next(&frame), FrameReader::Status::Bad);
    FrameReader standard;
    standard.Feed(std::string("\x01\0\0\x01", 4));
    EXPECT_EQ(standard.Next(&frame), FrameReader::Status::Bad);
}

TEST(Frame, AMessageThatIsNoFrameIsBad) {
    for (const std::string& bytes :
         {std::string("\x22\x05zz", 4), std::string("\x08", 1), std::string(3, '\xFF')}) {
        FrameReader reader;
        reader.Feed(WithLength(bytes));
        Frame frame;
        EXPECT_EQ(reader.Next(&frame), FrameReader::Status::Bad);
    }
}

TEST(Frame, UnknownFieldsAndAnyOrderAreAccepted) {
    FrameReader reader;
    reader.Feed(WithLength("\x22\x01z\x7a\x02hi\x18\x04\x10\x09"));  // body, field 15, id, ack
    Frame frame;
    ASSERT_EQ(reader.Next(&frame), FrameReader::Status::Ready);
    ExpectEqual(frame, {0, 9, kAckId, "z"});
}

// Seeded noise: the reader ends in NeedMore or Bad, keeps no more than it was given, and never crashes.
TEST(Frame, SurvivesNoise) {
    std::mt19937 random(20240611);
    std::size_t bad = 0;
    for (int round = 0; round < 2000; ++round) {
        FrameReader reader(4096);
        std::size_t fed = 0;
        for (int chunk = 0; chunk < 8; ++chunk) {
            std::string bytes(random() % 64, '\0');
            for (char& byte : bytes) byte = static_cast<char>(random());
            if (chunk == 0 && round % 2 == 0) bytes = WithLength(bytes);
            fed += bytes.size();
            reader.Feed(bytes);
            Frame frame;
            while (reader.Next(&frame) == FrameReader::Status::Ready) EXPECT_LE(frame.body.size(), fed);
            EXPECT_LE(reader.Buffered(), fed);
        }
        Frame frame;
        bad += reader.Next(&frame) == FrameReader::Status::Bad ? 1 : 0;
    }
    EXPECT_GT(bad, 1000u);
}

TEST(Frame, SurvivesBitFlipsInAValidStream) {
    std::mt19937 random(7);
    std::string stream;
    for (std::uint64_t seq = 1; seq <= 20; ++seq)
        stream += Encoded({seq, seq, 4008, std::string(seq * 3, 'p')});
    for (int round = 0; round < 3000; ++round) {
        std::string broken = stream;
        char& byte = broken[random() % broken.size()];
        byte = static_cast<char>(byte ^ (1 << random() % 8));
        FrameReader reader;
        reader.Feed(broken);
        Frame frame;
        std::size_t count = 0;
        while (reader.Next(&frame) == FrameReader::Status::Ready) ++count;
        EXPECT_LE(count, stream.size() / 4);
    }
}

}  // namespace
}  // namespace rq::link
