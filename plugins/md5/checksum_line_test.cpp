#include "checksum_line.h"

#include <gtest/gtest.h>

namespace rq::md5 {
namespace {

const std::string kAbc = "900150983cd24fb0d6963f7d28e17f72";

std::string NameIn(const std::string& line) {
    Checksum checksum;
    if (!ParseChecksum(line, checksum)) return "(no checksum)";
    EXPECT_EQ(HexOf(checksum.digest), kAbc);
    return checksum.name;
}

TEST(ChecksumLine, ReadsEveryFormOfMd5sum) {
    EXPECT_EQ(NameIn(kAbc + "  a name "), "a name ");
    EXPECT_EQ(NameIn(kAbc + " *sub/片.mxf"), "sub/片.mxf");
    EXPECT_EQ(NameIn("900150983CD24FB0D6963F7D28E17F72   leading blank"), " leading blank");
    EXPECT_EQ(NameIn(kAbc + "  **"), "**");
    EXPECT_EQ(NameIn("\\" + kAbc + "  a\\\\b\\nc\\rd"), "a\\b\nc\rd");
    EXPECT_EQ(NameIn(kAbc + "  a\\nb"), "a\\nb");  // without the mark a backslash is one
    EXPECT_EQ(NameIn("MD5 (a (1) = b.mxf) = " + kAbc), "a (1) = b.mxf");
    EXPECT_EQ(NameIn("\\MD5 (a\\nb) = " + kAbc), "a\nb");
    EXPECT_EQ(NameIn(" \t\\" + kAbc + "  a\\nb"), "a\nb");
}

TEST(ChecksumLine, RefusesEverythingElse) {
    const std::string lines[] = {"",
                                 kAbc,
                                 kAbc + "  ",
                                 kAbc + " a",
                                 kAbc + "\ta",
                                 kAbc.substr(1) + "  abc",
                                 kAbc + "  a" + std::string(1, '\0') + "b",
                                 " \t ",
                                 kAbc + "0  a",
                                 "g" + kAbc.substr(1) + "  a",
                                 "\\" + kAbc + "  a\\x",
                                 "\\" + kAbc + "  a\\",
                                 "\\\\" + kAbc + "  a",
                                 "MD5 () = " + kAbc,
                                 "MD5 (a) =" + kAbc,
                                 "MD5 (a) = " + kAbc + " ",
                                 "MD5(a)= " + kAbc,
                                 "SHA256 (a) = " + kAbc};
    for (const std::string& line : lines) EXPECT_EQ(NameIn(line), "(no checksum)") << line;
}

TEST(ChecksumLine, WritesWhatItReads) {
    const auto digest = *task::ParseMd5(kAbc);
    EXPECT_EQ(ChecksumLine("sub/a b", digest), kAbc + "  sub/a b\n");
    EXPECT_EQ(ChecksumLine("a\nb\\c\rd", digest), "\\" + kAbc + "  a\\nb\\\\c\\rd\n");
    for (const std::string name : {"a", " *a", "\n", "\\n", "a\\", "中\r\n", "MD5 (a) = b"}) {
        std::string line = ChecksumLine(name, digest);
        EXPECT_EQ(line.find('\n'), line.size() - 1);
        line.pop_back();
        EXPECT_EQ(NameIn(line), name);
    }
}

}  // namespace
}  // namespace rq::md5
