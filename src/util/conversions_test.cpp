#include <gtest/gtest.h>

#include <clocale>
#include <cstring>
#include <limits>
#include <locale>
#include <memory>

#include "kit/temp_dir.h"
#include "util/utility.h"
#include "util/worker_util.h"

namespace rq {
namespace {

using namespace KWOVL_UTILITY;

TEST(Conversions, NarrowAndWideTextsLoseNothing) {
    const std::string narrow = "D:\\任务\\a b.xml \xF0\x9F\x8E\xAC";
    EXPECT_EQ(OVLTStringToString(OVLStringToTString(narrow)), narrow);
    EXPECT_EQ(OVLTStringToUTF8(OVLUTF8ToTString(narrow)), narrow);
    EXPECT_EQ(OVLStringToTString("\xE4\xBB\xBB"), L"\u4efb");
    EXPECT_EQ(OVLUTF8ToTString("\xE4\xBB\xBB"), L"\u4efb");
    EXPECT_EQ(OVLStringToTString(""), L"");
    EXPECT_EQ(OVLTStringToString(L""), "");
}

TEST(Conversions, WhatIsNoTextIsReplaced) {
    EXPECT_EQ(OVLStringToTString("a\xFF"), L"a\ufffd");
    EXPECT_EQ(OVLTStringToUTF8(std::wstring(1, static_cast<wchar_t>(0xD800))), "\xEF\xBF\xBD");
}

TEST(Conversions, Integers) {
    EXPECT_EQ(OVLIntegerToString(0), "0");
    EXPECT_EQ(OVLIntegerToString(std::numeric_limits<std::int32_t>::min()), "-2147483648");
    EXPECT_EQ(OVLLongLongToHexString(0), "0");
    EXPECT_EQ(OVLLongLongToHexString(0xABCDEF), "ABCDEF");
    EXPECT_EQ(OVLLongLongToHexString(-1), "FFFFFFFFFFFFFFFF");
}

TEST(Conversions, UnsignedIntegersFromText) {
    EXPECT_EQ(OVLStringToUInteger("8089"), 8089u);
    EXPECT_EQ(OVLStringToUInteger(" \t+12ab"), 12u);
    EXPECT_EQ(OVLStringToUInteger("4294967295"), 4294967295u);
    EXPECT_EQ(OVLStringToUInteger("4294967296"), 4294967295u);
    EXPECT_EQ(OVLStringToUInteger("99999999999999999999999999999999"), 4294967295u);
    EXPECT_EQ(OVLStringToUInteger("-5"), 0u);
    EXPECT_EQ(OVLStringToUInteger("-"), 0u);
    EXPECT_EQ(OVLStringToUInteger("abc"), 0u);
    EXPECT_EQ(OVLStringToUInteger(""), 0u);
}

TEST(Conversions, UuidsAndDigests) {
    const std::uint8_t bytes[16] = {0x00, 0x01, 0x02, 0x03, 0x0A, 0x0B, 0x0C, 0x0D,
                                    0xFF, 0xFE, 0x10, 0x20, 0x30, 0x40, 0x50, 0x60};
    EXPECT_EQ(OVLUuidToString(bytes), "00010203-0a0b-0c0d-fffe-102030405060");
    EXPECT_EQ(OVLMD5SeedToString(bytes), "000102030a0b0c0dfffe102030405060");
    EXPECT_EQ(OVLUuidToString(nullptr), "");
    EXPECT_EQ(OVLMD5SeedToString(nullptr), "");
}

TEST(Conversions, Guids) {
    platform::Guid guid;
    guid.data1 = 0x0012ABCD;
    guid.data2 = 0x0F;
    guid.data3 = 0xFFFF;
    guid.data4 = {0, 1, 2, 0xA0, 0xB0, 0xC0, 0xD0, 0xFF};
    EXPECT_EQ(GuidToString(&guid), "0012abcd-000f-ffff-0001-02a0b0c0d0ff");
    EXPECT_EQ(GuidToString(nullptr), "");
}

std::string Allocated(const wchar_t* text) {
    const std::unique_ptr<char[]> buffer(WideToMultiByteAlloc(text));
    return buffer.get();
}

TEST(WideToMultiByteAlloc, CutsAtAWholeCharacterAndTerminates) {
    EXPECT_EQ(Allocated(L"abc"), "abc");
    EXPECT_EQ(Allocated(L""), "");
    EXPECT_EQ(Allocated(nullptr), "");
    EXPECT_EQ(Allocated(L"\u00e4\u00f6"), "äö");  // two bytes each: all of the room
    EXPECT_EQ(Allocated(L"\u4efb\u52a1"), "任");  // 4 bytes of room, three for each character
    EXPECT_EQ(Allocated(L"\u4efb"), "");          // 2 bytes of room
    EXPECT_EQ(Allocated(L"\u4efb\u52a1"
                        L"ab"),
              "任务ab");  // 8 bytes of room
}

TEST(WideToMultiByteAlloc, TheArrayHasItsFullSize) {
    const std::unique_ptr<char[]> buffer(WideToMultiByteAlloc(L"abcd"));
    // All of the nine bytes are the caller's; the address sanitizer sees one that is not.
    for (int i = 4; i < 9; ++i) EXPECT_EQ(buffer[static_cast<std::size_t>(i)], '\0');
    std::memset(buffer.get(), 'x', 9);
}

TEST(Locale, TheSavedLocaleComesBack) {
    const std::string before = std::setlocale(LC_ALL, nullptr);
    const std::string saved = OVLSetDefaultLocale();
    EXPECT_EQ(saved, before);
    EXPECT_EQ(OVLRestoreLocale(saved), 0);
    EXPECT_EQ(std::setlocale(LC_ALL, nullptr), before);
    EXPECT_EQ(OVLRestoreLocale("no-such-locale"), -1);
    EXPECT_EQ(std::setlocale(LC_ALL, nullptr), before);
}

TEST(Locale, TheSystemsLocaleIsTaken) {
    kit::ScopedEnvironment all("LC_ALL", "C.UTF-8");
    const std::string before = std::setlocale(LC_ALL, nullptr);
    std::setlocale(LC_ALL, "");
    const std::string systems = std::setlocale(LC_CTYPE, nullptr);
    std::setlocale(LC_ALL, before.c_str());
    EXPECT_NE(systems, "C");
    const std::string saved = OVLSetDefaultLocale();
    EXPECT_EQ(std::setlocale(LC_CTYPE, nullptr), systems);
    EXPECT_STREQ(std::setlocale(LC_NUMERIC, nullptr), "C");
    OVLRestoreLocale(saved);
}

// A global locale with grouping and a comma, as a library or a plug-in may set one.
struct Commas : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

TEST(Locale, NumbersKeepTheirClassicForm) {
    const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Commas));
    EXPECT_EQ(StreamText(1234.5), "1234.5");
    EXPECT_EQ(OVLIntegerToString(1234567), "1234567");
    std::locale::global(before);
}

TEST(AVFormat, BecomesOneLineOfXml) {
    KWOVL::tagAVFormat format;
    format.container = "mp4 \"<x>\"";
    format.duration_us = 2'000'000;
    format.size_bytes = 5'000'000'000;
    format.bitRate_bps = 20'000'000;
    KWOVL::tagAVStream video;
    video.kind = 1;
    video.codec = "h264";
    video.width_px = 1920;
    video.height_px = 1080;
    video.frameRateNumerator = 25;
    video.frameRateDenominator = 1;
    format.streams.push_back(video);
    std::wstring xml;
    EXPECT_EQ(RQAVFormatToXmlString(&format, xml), 0);
    EXPECT_EQ(
        OVLTStringToUTF8(xml),
        "<AVFormat Container='mp4 &quot;&lt;x&gt;&quot;' Duration=\"2000000\" Size=\"5000000000\" "
        "BitRate=\"20000000\"><Stream Kind=\"Video\" Codec=\"h264\" Width=\"1920\" Height=\"1080\" "
        "FrameRateNumerator=\"25\" FrameRateDenominator=\"1\" SampleRate=\"0\" Channels=\"0\" BitRate=\"0\" "
        "Duration=\"0\" /></AVFormat>");
}

TEST(AVFormat, NullIsRefused) {
    std::wstring xml = L"kept";
    EXPECT_EQ(static_cast<std::uint32_t>(RQAVFormatToXmlString(nullptr, xml)), 0x80004005u);
    EXPECT_EQ(xml, L"kept");
}

}  // namespace
}  // namespace rq
