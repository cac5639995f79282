// Task results: the pure conversion, and GetTaskResult of the runner.

#include "plugin/task_results.h"

#include "plugin/runner_fixture.h"
#include "util/utility.h"

namespace rq {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

Md5Digest Digest(std::uint8_t first) {
    Md5Digest digest{};
    digest[0] = first;
    digest[15] = 0xEF;
    return digest;
}

const std::string kTextOf1 = "010000000000000000000000000000ef";
const std::string kTextOf2 = "020000000000000000000000000000ef";
const std::string kZeros(32, '0');

template <class Record>
std::shared_ptr<const Record> As(const std::shared_ptr<const stTaskResultBase>& base) {
    return std::dynamic_pointer_cast<const Record>(base);
}

TEST(CompareMd5TextsTest, FollowsTheRule) {
    EXPECT_EQ(CompareMd5Texts("", ""), 0);
    EXPECT_EQ(CompareMd5Texts("", kTextOf1), 0);
    EXPECT_EQ(CompareMd5Texts(kZeros, kZeros), 0);
    EXPECT_EQ(CompareMd5Texts(kZeros, kTextOf1), 0);
    EXPECT_EQ(CompareMd5Texts(kTextOf1, kTextOf1), 1);
    EXPECT_EQ(CompareMd5Texts(kTextOf1, kTextOf2), -1);
    EXPECT_EQ(CompareMd5Texts(kTextOf1, kZeros), -1);
    EXPECT_EQ(CompareMd5Texts(kTextOf1, ""), -1);
}

TEST(CompareMd5TextsTest, MindsTheCase) {
    EXPECT_EQ(CompareMd5Texts("ABCD", "abcd"), -1);
}

TEST(MakeTaskResultTest, WhichTypesHaveARecord) {
    for (std::int32_t type = -2; type < 60; ++type) {
        const auto record = MakeTaskResult(type, {});
        const bool isMd5 = type == 3 || type == 4;
        const bool isTranscode = type == 1 || type == 8 || type == 30;
        EXPECT_EQ(As<stMD5TaskResult>(record) != nullptr, isMd5) << type;
        EXPECT_EQ(As<stTransferTaskResult>(record) != nullptr, type == 0) << type;
        EXPECT_EQ(As<stTranscodeTaskResult>(record) != nullptr, isTranscode) << type;
        EXPECT_EQ(record != nullptr, isMd5 || isTranscode || type == 0) << type;
    }
}

TEST(MakeTaskResultTest, Md5Computation) {
    TaskResultCopy results;
    results.md5Files.push_back({"/\xe4\xb8\x80", "s", Digest(1), Digest(1), Digest(2)});
    const auto record = As<stMD5TaskResult>(MakeTaskResult(3, results));
    ASSERT_THAT(record->files, SizeIs(1));
    const Md5FileEntry& file = record->files[0];
    EXPECT_EQ(file.mode, 1);
    EXPECT_EQ(file.first, "/\xe4\xb8\x80");
    EXPECT_EQ(file.second, "s");
    EXPECT_EQ(file.firstMd5, "");
    EXPECT_EQ(file.secondMd5, "");
    EXPECT_EQ(file.verification, 0);
    EXPECT_EQ(file.computedMd5, kTextOf2);
}

TEST(MakeTaskResultTest, Md5Verification) {
    TaskResultCopy results;
    results.md5Files.push_back({"equal", "", Digest(1), Digest(1), Digest(2)});
    results.md5Files.push_back({"different", "", Digest(1), Digest(2), {}});
    results.md5Files.push_back({"zero", "", Md5Digest{}, Md5Digest{}, {}});
    results.md5Files.push_back({"none", "", {}, Digest(1), {}});
    const auto record = As<stMD5TaskResult>(MakeTaskResult(4, results));
    ASSERT_THAT(record->files, SizeIs(4));
    EXPECT_EQ(record->files[0].mode, 0);
    EXPECT_EQ(record->files[0].firstMd5, kTextOf1);
    EXPECT_EQ(record->files[0].secondMd5, kTextOf1);
    EXPECT_EQ(record->files[0].verification, 1);
    EXPECT_EQ(record->files[0].computedMd5, "");
    EXPECT_EQ(record->files[1].first, "different");
    EXPECT_EQ(record->files[1].verification, -1);
    EXPECT_EQ(record->files[2].firstMd5, kZeros);
    EXPECT_EQ(record->files[2].secondMd5, kZeros);
    EXPECT_EQ(record->files[2].verification, 0);
    EXPECT_EQ(record->files[3].firstMd5, "");
    EXPECT_EQ(record->files[3].secondMd5, kTextOf1);
    EXPECT_EQ(record->files[3].verification, 0);
}

TEST(MakeTaskResultTest, Transfer) {
    TaskResultCopy results;
    results.verifications.push_back({"a", "b", Digest(1), Digest(2)});
    results.verifications.push_back({"zeros", "", Md5Digest{}, Digest(1)});
    results.verifications.push_back({"none", "", {}, Digest(1)});
    results.transferOutputs.push_back({RQ_OUTPUT_TEXT, "f", "s", 5, std::nullopt, "more"});
    KWOVL::tagAVFormat format;
    format.container = "mxf";
    results.transferOutputs.push_back({RQ_OUTPUT_FORMAT, "g", "", 6, format, ""});
    const auto record = As<stTransferTaskResult>(MakeTaskResult(0, results));
    ASSERT_THAT(record->verifications, SizeIs(3));
    EXPECT_EQ(record->verifications[1].verification, 0);
    EXPECT_EQ(record->verifications[2].verification, 0);
    EXPECT_EQ(record->verifications[0].first, "a");
    EXPECT_EQ(record->verifications[0].second, "b");
    EXPECT_EQ(record->verifications[0].firstMd5, kTextOf1);
    EXPECT_EQ(record->verifications[0].secondMd5, kTextOf2);
    EXPECT_EQ(record->verifications[0].verification, -1);
    ASSERT_THAT(record->outputs, SizeIs(2));
    EXPECT_EQ(record->outputs[0].kind, 3u);
    EXPECT_EQ(record->outputs[0].first, "f");
    EXPECT_EQ(record->outputs[0].second, "s");
    EXPECT_EQ(record->outputs[0].size_bytes, 5u);
    EXPECT_EQ(record->outputs[0].furtherText, "more");
    EXPECT_EQ(record->outputs[0].formatXml, "");
    std::wstring xml;
    KWOVL_UTILITY::RQAVFormatToXmlString(&format, xml);
    EXPECT_EQ(record->outputs[1].kind, 2u);
    EXPECT_EQ(record->outputs[1].formatXml, KWOVL_UTILITY::OVLTStringToUTF8(xml));
    EXPECT_NE(record->outputs[1].formatXml.find("mxf"), std::string::npos);
}

TEST(MakeTaskResultTest, Transcode) {
    KWOVL::tagAVFormat format;
    format.container = "mp4";
    TaskResultCopy results;
    results.verifications.push_back({"a", "b", Digest(1), Digest(1)});
    results.verifications.push_back({"zeros", "", Md5Digest{}, Digest(1)});
    results.verifications.push_back({"none", "", {}, Digest(1)});
    results.transcodeOutputs.push_back({1, 0xFFFFFFFFu, 1ull << 40, "f", "s", format});
    results.transcodeOutputs.push_back({0, 0, 0, "g", "", std::nullopt});
    for (const std::int32_t type : {1, 8, 30}) {
        const auto record = As<stTranscodeTaskResult>(MakeTaskResult(type, results));
        ASSERT_THAT(record->verifications, SizeIs(3));
        EXPECT_EQ(record->verifications[0].verification, 1);
        EXPECT_EQ(record->verifications[1].verification, 0);
        EXPECT_EQ(record->verifications[2].verification, 0);
        ASSERT_THAT(record->outputs, SizeIs(2));
        EXPECT_EQ(record->outputs[0].first, "f");
        EXPECT_EQ(record->outputs[0].second, "s");
        EXPECT_EQ(record->outputs[0].value1, 1u);
        EXPECT_EQ(record->outputs[0].value2, 0xFFFFFFFFu);
        EXPECT_EQ(record->outputs[0].value64, 1ull << 40);
        EXPECT_NE(record->outputs[0].formatXml.find("mp4"), std::string::npos);
        EXPECT_EQ(record->outputs[1].formatXml, "");
    }
}

// ---- the runner ----

class RunnerResultTest : public RunnerTest {
  protected:
    RunnerResultTest() {
        for (RQMd5File& file : m_files) {
            file.size = sizeof file;
            file.has = RQ_HAS_COMPUTED_MD5;
            file.first = Text("listed");
        }
        m_info.typeData = &m_data;
    }
    std::shared_ptr<const stMD5TaskResult> Md5() { return As<stMD5TaskResult>(m_runner->GetTaskResult(3)); }

    RQMd5File m_files[2]{};
    const void* m_items[2] = {&m_files[0], &m_files[1]};
    RQResultList m_list{sizeof m_list, 2, m_items, 0, 0};
    RQMd5Data m_data{sizeof m_data, 0, &m_list};
};

TEST_F(RunnerResultTest, HasWhatIsPublishedSoFar) {
    Analysed();
    EXPECT_THAT(Md5()->files, IsEmpty());
    RQStore32(&m_list.count, 1);
    EXPECT_THAT(Md5()->files, SizeIs(1));
    RQStore32(&m_list.count, 2);
    EXPECT_THAT(Md5()->files, SizeIs(2));
}

TEST_F(RunnerResultTest, PublishedEntriesComeAfterTheLists) {
    m_plugin.perform = [&](const PerformArguments& call) {
        RQMd5File file{};
        file.size = sizeof file;
        file.first = Text("published");
        EXPECT_EQ(m_plugin.host->publishResult(m_plugin.host->context, RQ_RESULT_MD5_FILE, &file), 0);
        RQStore32(&m_list.count, 1);
        call.Leave(RQ_STATUS_FINISHED);
        return 0;
    };
    Analysed();
    EXPECT_EQ(Perform(), 0);
    const auto record = Md5();
    ASSERT_THAT(record->files, SizeIs(2));
    EXPECT_EQ(record->files[0].first, "listed");
    EXPECT_EQ(record->files[1].first, "published");
}

TEST_F(RunnerResultTest, TwoCallsGiveTwoRecordsAndTheFirstLivesAsLongAsItIsHeld) {
    RQStore32(&m_list.count, 1);
    Analysed();
    const auto first = Md5();
    std::weak_ptr<const stTaskResultBase> unheld = m_runner->GetTaskResult(3);
    EXPECT_FALSE(unheld.expired());
    EXPECT_NE(unheld.lock(), first);
    m_runner->GetTaskResult(3);
    EXPECT_TRUE(unheld.expired());
    EXPECT_EQ(first->files[0].first, "listed");
}

TEST_F(RunnerResultTest, ATypeWithoutARecordDropsTheOneBefore) {
    Analysed();
    std::weak_ptr<const stTaskResultBase> unheld = m_runner->GetTaskResult(3);
    EXPECT_EQ(m_runner->GetTaskResult(2), nullptr);
    EXPECT_TRUE(unheld.expired());
}

TEST_F(RunnerResultTest, ReleaseDropsTheRecord) {
    Analysed();
    std::weak_ptr<const stTaskResultBase> unheld = m_runner->GetTaskResult(3);
    m_runner->Release();
    EXPECT_TRUE(unheld.expired());
}

TEST_F(RunnerResultTest, ATypeThatIsNotTheRecordsGivesEmptyLists) {
    RQStore32(&m_list.count, 2);
    Analysed();
    const auto record = As<stTransferTaskResult>(m_runner->GetTaskResult(0));
    ASSERT_NE(record, nullptr);
    EXPECT_THAT(record->verifications, IsEmpty());
    EXPECT_THAT(record->outputs, IsEmpty());
}

TEST_F(RunnerResultTest, ResultsOfATaskNeverAppearInTheNext) {
    m_plugin.perform = [&](const PerformArguments& call) {
        RQMd5File file{};
        file.size = sizeof file;
        m_plugin.host->publishResult(m_plugin.host->context, RQ_RESULT_MD5_FILE, &file);
        call.Leave(RQ_STATUS_FINISHED);
        return 0;
    };
    Analysed();
    EXPECT_EQ(Perform(), 0);
    EXPECT_THAT(Md5()->files, SizeIs(1));
    EXPECT_EQ(Analyse(), 0);
    EXPECT_THAT(Md5()->files, IsEmpty());
}

TEST_F(RunnerResultTest, TwoThreadsMayAskAtOnce) {
    RQStore32(&m_list.count, 2);
    Analysed();
    const auto ask = [&] {
        for (int i = 0; i < 200; ++i) {
            const auto record = Md5();
            ASSERT_NE(record, nullptr);
            EXPECT_EQ(record->files.size(), 2u);
        }
    };
    std::thread other(ask);
    ask();
    other.join();
}

}  // namespace
}  // namespace rq
