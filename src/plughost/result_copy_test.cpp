#include "plughost/result_copy.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace rq {
namespace {

RQText Text(std::string_view text) {
    return {text.data(), text.size()};
}

// A result list over records of the test's own.
template <class Record>
struct List {
    explicit List(std::uint32_t capacity) : records(capacity), items(capacity) {
        for (std::uint32_t i = 0; i < capacity; ++i) {
            records[i] = Record{};
            records[i].size = sizeof(Record);
            items[i] = &records[i];
        }
        plain.size = sizeof plain;
        plain.capacity = capacity;
        plain.items = items.data();
    }
    std::vector<Record> records;
    std::vector<const void*> items;
    RQResultList plain{};
};

class ResultCopy : public ::testing::Test {
  protected:
    ResultCopy() {
        m_info.size = sizeof m_info;
        m_md5.size = sizeof m_md5;
        m_transfer.size = sizeof m_transfer;
        m_transcode.size = sizeof m_transcode;
    }
    void UseMd5(std::int32_t type, RQResultList* files) {
        m_md5.files = files;
        m_info.taskType = type;
        m_info.typeData = &m_md5;
    }
    TaskResultCopy Copy() {
        return CopyTaskResults(m_info, "md5", [this](int level, const std::string& text) {
            m_lines.push_back(std::to_string(level) + " " + text);
        });
    }

    TaskInfo m_info{};
    RQMd5Data m_md5{};
    RQTransferData m_transfer{};
    RQTranscodeData m_transcode{};
    std::vector<std::string> m_lines;
};

TEST_F(ResultCopy, Md5FilesInTheirOrder) {
    List<RQMd5File> files(3);
    files.records[0].first = Text("/源/一");
    files.records[0].second = Text("two");
    files.records[0].has = RQ_HAS_COMPUTED_MD5;
    files.records[0].computedMd5[15] = 9;
    files.records[1].first = Text("b");
    files.records[1].has = RQ_HAS_FIRST_MD5 | RQ_HAS_SECOND_MD5;
    files.records[1].firstMd5[0] = 1;
    files.records[1].secondMd5[0] = 2;
    RQStore32(&files.plain.count, 2);
    for (const std::int32_t type : {RQ_TYPE_MD5_COMPUTE, RQ_TYPE_MD5_VERIFY}) {
        UseMd5(type, &files.plain);
        const TaskResultCopy results = Copy();
        ASSERT_EQ(results.md5Files.size(), 2u) << "the third is not published yet";
        EXPECT_EQ(results.md5Files[0].first, "/源/一");
        EXPECT_EQ(results.md5Files[0].second, "two");
        EXPECT_EQ(results.md5Files[0].firstMd5, std::nullopt);
        EXPECT_EQ(results.md5Files[0].secondMd5, std::nullopt);
        ASSERT_TRUE(results.md5Files[0].computedMd5.has_value());
        EXPECT_EQ((*results.md5Files[0].computedMd5)[15], 9);
        EXPECT_EQ((*results.md5Files[1].firstMd5)[0], 1);
        EXPECT_EQ((*results.md5Files[1].secondMd5)[0], 2);
        EXPECT_EQ(results.md5Files[1].computedMd5, std::nullopt);
    }
    EXPECT_TRUE(m_lines.empty());
}

TEST_F(ResultCopy, NothingWithoutData) {
    for (std::int32_t type = -1; type <= 31; ++type) {
        m_info.taskType = type;
        m_info.typeData = nullptr;
        const TaskResultCopy results = Copy();
        EXPECT_TRUE(results.md5Files.empty() && results.verifications.empty() &&
                    results.transferOutputs.empty() && results.transcodeOutputs.empty());
    }
    UseMd5(RQ_TYPE_MD5_COMPUTE, nullptr);
    EXPECT_TRUE(Copy().md5Files.empty());
    EXPECT_TRUE(m_lines.empty());
}

// The data of a type without results is not looked at, whatever it is.
TEST_F(ResultCopy, DataOfOtherTypesIsLeftAlone) {
    const std::uint32_t four = 4;  // a record that is too small for anything: looking at it gives a line
    for (const std::int32_t type : {2, 5, 6, 7, 9, 10, 12, 13, 14, 23, 29, 31}) {
        m_info.taskType = type;
        m_info.typeData = &four;
        EXPECT_TRUE(Copy().md5Files.empty());
    }
    EXPECT_TRUE(m_lines.empty());
}

TEST_F(ResultCopy, TransferHasTwoLists) {
    List<RQVerification> verifications(1);
    verifications.records[0].first = Text("from");
    verifications.records[0].second = Text("to");
    verifications.records[0].has = RQ_HAS_FIRST_MD5;
    RQStore32(&verifications.plain.count, 1);

    RQMediaStream stream{};
    stream.size = sizeof stream;
    stream.kind = RQ_STREAM_VIDEO;
    stream.codec = Text("mpeg2video");
    stream.width_px = 1920;
    stream.height_px = 1080;
    stream.frameRateNumerator = 25;
    stream.frameRateDenominator = 1;
    stream.bitRate_bps = 50'000'000;
    stream.duration_us = -1;
    const RQMediaStream* streams[] = {&stream};
    RQMediaFormat format{};
    format.size = sizeof format;
    format.streamCount = 1;
    format.streams = streams;
    format.container = Text("mxf");
    format.duration_us = 40'000;
    format.size_bytes = 12;
    format.bitRate_bps = 13;

    List<RQTransferOutput> outputs(3);
    outputs.records[0].kind = RQ_OUTPUT_FORMAT;
    outputs.records[0].first = Text("out");
    outputs.records[0].size_bytes = 77;
    outputs.records[0].format = &format;
    outputs.records[0].further = Text("not of this kind");
    outputs.records[1].kind = RQ_OUTPUT_TEXT;
    outputs.records[1].format = &format;
    outputs.records[1].further = Text("further");
    RQStore32(&outputs.plain.count, 3);
    m_transfer.verifications = &verifications.plain;
    m_transfer.outputs = &outputs.plain;
    m_info.taskType = RQ_TYPE_TRANSFER;
    m_info.typeData = &m_transfer;

    const TaskResultCopy results = Copy();
    ASSERT_EQ(results.verifications.size(), 1u);
    EXPECT_EQ(results.verifications[0].first, "from");
    EXPECT_EQ(results.verifications[0].second, "to");
    EXPECT_TRUE(results.verifications[0].firstMd5.has_value());
    EXPECT_FALSE(results.verifications[0].secondMd5.has_value());
    ASSERT_EQ(results.transferOutputs.size(), 3u);
    EXPECT_EQ(results.transferOutputs[0].first, "out");
    EXPECT_EQ(results.transferOutputs[0].size_bytes, 77u);
    EXPECT_EQ(results.transferOutputs[0].further, "");
    ASSERT_TRUE(results.transferOutputs[0].format.has_value());
    EXPECT_EQ(results.transferOutputs[0].format->container, "mxf");
    EXPECT_EQ(results.transferOutputs[0].format->duration_us, 40'000);
    EXPECT_EQ(results.transferOutputs[0].format->size_bytes, 12u);
    EXPECT_EQ(results.transferOutputs[0].format->bitRate_bps, 13u);
    ASSERT_EQ(results.transferOutputs[0].format->streams.size(), 1u);
    const KWOVL::tagAVStream& copied = results.transferOutputs[0].format->streams[0];
    EXPECT_EQ(copied.kind, RQ_STREAM_VIDEO);
    EXPECT_EQ(copied.codec, "mpeg2video");
    EXPECT_EQ(copied.width_px, 1920u);
    EXPECT_EQ(copied.height_px, 1080u);
    EXPECT_EQ(copied.frameRateNumerator, 25u);
    EXPECT_EQ(copied.frameRateDenominator, 1u);
    EXPECT_EQ(copied.bitRate_bps, 50'000'000u);
    EXPECT_EQ(copied.duration_us, -1);
    EXPECT_FALSE(results.transferOutputs[1].format.has_value());
    EXPECT_EQ(results.transferOutputs[1].further, "further");
    EXPECT_EQ(results.transferOutputs[2].kind, RQ_OUTPUT_PLAIN);
    EXPECT_TRUE(m_lines.empty());
}

TEST_F(ResultCopy, TranscodeTypesShareTheirForm) {
    List<RQVerification> verifications(1);
    RQStore32(&verifications.plain.count, 1);
    List<RQTranscodeOutput> outputs(1);
    outputs.records[0].frames = 1;
    outputs.records[0].audio_ms = 0xFFFFFFFFu;
    outputs.records[0].size_bytes = 0x123456789ABCDEF0u;
    outputs.records[0].first = Text("a");
    outputs.records[0].second = Text("b");
    RQStore32(&outputs.plain.count, 1);
    m_transcode.verifications = &verifications.plain;
    m_transcode.outputs = &outputs.plain;
    m_info.typeData = &m_transcode;
    for (const std::int32_t type : {RQ_TYPE_TRANSCODE, RQ_TYPE_REALTIME_MERGE, RQ_TYPE_TRANSCODE_30}) {
        m_info.taskType = type;
        const TaskResultCopy results = Copy();
        EXPECT_EQ(results.verifications.size(), 1u);
        ASSERT_EQ(results.transcodeOutputs.size(), 1u);
        EXPECT_EQ(results.transcodeOutputs[0].value1, 1u);
        EXPECT_EQ(results.transcodeOutputs[0].value2, 0xFFFFFFFFu);
        EXPECT_EQ(results.transcodeOutputs[0].value64, 0x123456789ABCDEF0u);
        EXPECT_EQ(results.transcodeOutputs[0].first, "a");
        EXPECT_EQ(results.transcodeOutputs[0].second, "b");
        EXPECT_FALSE(results.transcodeOutputs[0].format.has_value());
    }
}

TEST_F(ResultCopy, TooSmallRecordsAreLeftOutWithOneLine) {
    List<RQMd5File> files(3);
    files.records[0].size = sizeof(RQMd5File) - 1;
    files.items[1] = nullptr;
    files.records[2].first = Text("good");
    RQStore32(&files.plain.count, 3);
    UseMd5(RQ_TYPE_MD5_COMPUTE, &files.plain);
    const TaskResultCopy results = Copy();
    ASSERT_EQ(results.md5Files.size(), 1u);
    EXPECT_EQ(results.md5Files[0].first, "good");
    EXPECT_EQ(m_lines, (std::vector<std::string>{
                           "3 plug-in md5: 2 result record(s) are missing or too small; they are left out"}));
}

TEST_F(ResultCopy, TooSmallDataGivesNothing) {
    List<RQMd5File> files(1);
    RQStore32(&files.plain.count, 1);
    UseMd5(RQ_TYPE_MD5_COMPUTE, &files.plain);
    m_md5.size = 4;
    EXPECT_TRUE(Copy().md5Files.empty());
    EXPECT_EQ(m_lines.size(), 1u);
}

TEST_F(ResultCopy, CountAboveTheCapacityIsCutWithOneLine) {
    List<RQMd5File> files(2);
    RQStore32(&files.plain.count, 3);
    UseMd5(RQ_TYPE_MD5_COMPUTE, &files.plain);
    EXPECT_EQ(Copy().md5Files.size(), 2u);
    EXPECT_EQ(
        m_lines,
        (std::vector<std::string>{
            "3 plug-in md5: 1 result list(s) count more entries than their capacity; the rest is left out"}));
}

TEST_F(ResultCopy, WrongBytesInManyTextsAreOneLine) {
    List<RQMd5File> files(4);
    for (RQMd5File& file : files.records) file.first = file.second = Text("\xB2\xE2");
    RQStore32(&files.plain.count, 4);
    UseMd5(RQ_TYPE_MD5_COMPUTE, &files.plain);
    EXPECT_EQ(Copy().md5Files[3].second, "\xEF\xBF\xBD\xEF\xBF\xBD");
    EXPECT_EQ(m_lines,
              (std::vector<std::string>{"3 plug-in md5: 8 text(s) of its results are not UTF-8; what is "
                                        "wrong in them became U+FFFD"}));
}

// A reader beside a plug-in that publishes sees whole entries only, and never fewer than before.
TEST_F(ResultCopy, MayBeTakenWhileThePlugInPublishes) {
    constexpr std::uint32_t count = 2000;
    List<RQMd5File> files(count);
    std::vector<std::string> names(count);
    UseMd5(RQ_TYPE_MD5_COMPUTE, &files.plain);
    std::thread publisher([&] {
        for (std::uint32_t i = 0; i < count; ++i) {
            names[i] = "file " + std::to_string(i);
            files.records[i].first = Text(names[i]);
            RQStore32(&files.plain.count, i + 1);
        }
    });
    std::size_t last = 0;
    while (last < count) {
        const TaskResultCopy results = Copy();
        ASSERT_GE(results.md5Files.size(), last);
        last = results.md5Files.size();
        for (std::size_t i = 0; i < last; ++i)
            ASSERT_EQ(results.md5Files[i].first, "file " + std::to_string(i));
    }
    publisher.join();
}

TEST_F(ResultCopy, AppendedEntriesGoToTheirLists) {
    TaskResultCopy results;
    const RQMd5File md5{sizeof(RQMd5File), 0, Text("m"), {}, {}, {}, {}};
    const RQVerification verification{sizeof(RQVerification), 0, Text("v"), {}, {}, {}};
    RQTransferOutput transfer{};
    transfer.size = sizeof transfer;
    RQTranscodeOutput transcode{};
    transcode.size = sizeof transcode;
    EXPECT_TRUE(AppendResult(results, RQ_RESULT_MD5_FILE, &md5, "md5", {}));
    EXPECT_TRUE(AppendResult(results, RQ_RESULT_VERIFICATION, &verification, "md5", {}));
    EXPECT_TRUE(AppendResult(results, RQ_RESULT_TRANSFER_OUTPUT, &transfer, "md5", {}));
    EXPECT_TRUE(AppendResult(results, RQ_RESULT_TRANSCODE_OUTPUT, &transcode, "md5", {}));
    EXPECT_FALSE(AppendResult(results, 0, &md5, "md5", {}));
    EXPECT_FALSE(AppendResult(results, 5, &md5, "md5", {}));
    EXPECT_FALSE(AppendResult(results, RQ_RESULT_MD5_FILE, nullptr, "md5", {}));
    TaskResultCopy more = results;
    AppendResults(results, std::move(more));
    EXPECT_EQ(results.md5Files.size(), 2u);
    EXPECT_EQ(results.md5Files[1].first, "m");
    EXPECT_EQ(results.verifications.size(), 2u);
    EXPECT_EQ(results.transferOutputs.size(), 2u);
    EXPECT_EQ(results.transcodeOutputs.size(), 2u);
}

class SourceFrameRateTest : public ResultCopy {
  protected:
    void Use(std::vector<RQSourceDescription> sources) {
        m_sources = std::move(sources);
        m_items.clear();
        for (const RQSourceDescription& source : m_sources) m_items.push_back(&source);
        m_transcode.sourceCount = static_cast<std::uint32_t>(m_items.size());
        m_transcode.sources = m_items.data();
        m_info.taskType = RQ_TYPE_TRANSCODE;
        m_info.typeData = &m_transcode;
    }
    static constexpr std::uint32_t kSize = sizeof(RQSourceDescription);
    std::vector<RQSourceDescription> m_sources;
    std::vector<const RQSourceDescription*> m_items;
};

TEST_F(SourceFrameRateTest, IsThatOfTheFirstSource) {
    Use({{kSize, 1, 30000, 1001}, {kSize, 1, 50, 1}});
    EXPECT_DOUBLE_EQ(SourceFrameRate(m_info).value(), 30000.0 / 1001.0);
}

TEST_F(SourceFrameRateTest, NoneWhenTheFirstHasNoVideo) {
    Use({{kSize, 0, 30, 1}, {kSize, 1, 50, 1}});
    EXPECT_EQ(SourceFrameRate(m_info), std::nullopt);
}

TEST_F(SourceFrameRateTest, NoneForADenominatorOfZero) {
    Use({{kSize, 1, 30, 0}});
    EXPECT_EQ(SourceFrameRate(m_info), std::nullopt);
}

TEST_F(SourceFrameRateTest, NoneWithoutSourcesAndForOtherTypes) {
    Use({});
    EXPECT_EQ(SourceFrameRate(m_info), std::nullopt);
    Use({{kSize, 1, 30, 1}});
    m_info.taskType = RQ_TYPE_REALTIME_MERGE;
    EXPECT_EQ(SourceFrameRate(m_info), std::nullopt);
    m_info.taskType = RQ_TYPE_TRANSCODE;
    m_info.typeData = nullptr;
    EXPECT_EQ(SourceFrameRate(m_info), std::nullopt);
}

TEST(IsTwoPass, NeedsTypeTwoAndBothFlags) {
    RQReviewData data{sizeof(RQReviewData), 1, 1, {0, 0}};
    TaskInfo info{};
    info.taskType = RQ_TYPE_REVIEW;
    info.typeData = &data;
    EXPECT_TRUE(IsTwoPass(info));
    data.twoPass = 0;
    EXPECT_FALSE(IsTwoPass(info));
    data.twoPass = 1;
    data.twoPassAudio = 0;
    EXPECT_FALSE(IsTwoPass(info));
    data.twoPassAudio = 1;
    info.taskType = RQ_TYPE_REALTIME_MERGE;
    EXPECT_FALSE(IsTwoPass(info));
    info.taskType = RQ_TYPE_REVIEW;
    info.typeData = nullptr;
    EXPECT_FALSE(IsTwoPass(info));
}

}  // namespace
}  // namespace rq
