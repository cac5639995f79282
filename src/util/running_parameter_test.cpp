#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "kit/files.h"
#include "kit/sparse_file.h"
#include "kit/temp_dir.h"
#include "util/log_capture.h"
#include "util/utility.h"

namespace rq {
namespace {

using namespace KWOVL_UTILITY;

class RunningParameterTest : public testing::Test {
  protected:
    std::string Path() const { return m_folder.Utf8("actor.xml"); }
    std::string Bytes(const char* name = "actor.xml") const { return kit::ReadBytes(m_folder.Path() / name); }
    bool Exists(const char* name) const { return std::filesystem::exists(m_folder.Path() / name); }
    std::int32_t Read() { return OVLReadRunningParameter(Path(), &m_record); }
    std::int32_t Write() const { return OVLRunningParamToXml(&m_record, OVLStringToTString(Path())); }
    std::int32_t ReadBytes(std::string_view bytes) {
        m_folder.Write("actor.xml", bytes);
        return Read();
    }
    // A whole file with the elements replaced or added by the caller.
    std::string WholeFile() const {
        kit::TempDir folder;
        const tagOVLCommunicationParam defaults;
        EXPECT_EQ(OVLRunningParamToXml(&defaults, OVLStringToTString(folder.Utf8("a.xml"))), 0);
        return kit::ReadBytes(folder.Path() / "a.xml");
    }
    static std::string With(std::string xml, std::string_view from, std::string_view to) {
        const std::size_t at = xml.find(from);
        EXPECT_NE(at, std::string::npos) << from;
        return at == std::string::npos ? xml : xml.replace(at, from.size(), to);
    }

    kit::TempDir m_folder;
    tagOVLCommunicationParam m_record;
    const tagOVLCommunicationParam m_defaults;
};

TEST_F(RunningParameterTest, AMissingFileGivesTheDefaultsAndIsWritten) {
    m_record.heartbeatInterval_s = 7;
    m_record.nextServerIndex = 3;
    EXPECT_EQ(Read(), kParameterFileMissing);
    EXPECT_EQ(m_record, m_defaults);
    EXPECT_EQ(Write(), 0);
    EXPECT_EQ(Read(), 0);
    EXPECT_EQ(m_record, m_defaults);
}

TEST_F(RunningParameterTest, TheFileThatIsInstalledIsTheOneThatIsWritten) {
    EXPECT_EQ(WholeFile(), kit::ReadBytes(RQ_SOURCE_DIR "/data/actor.xml"));
}

TEST_F(RunningParameterTest, EveryFieldComesBack) {
    m_record.value01 = -2147483647 - 1;
    m_record.heartbeatInterval_s = 2147483647;
    m_record.flag05 = false;
    m_record.flag09 = true;
    m_record.text07 = "a <b> & \"c\" 'd' 中文";
    m_record.texts08 = {"",    " leading",  "two  blanks", "line\nfeed\tand tab\r",
                        "]]>", "]]> ]]>  ", "&#x41; &amp;"};
    m_record.real16 = 0.1f;
    m_record.real17 = -1e-30f;
    m_record.real18 = 3.4e38f;
    m_record.httpEndpoint = "";
    m_record.text48 = "  ";
    m_record.serverAddresses = {"10.0.0.1", "::1", "host"};
    m_record.serverPorts = {1, 65535, 0};
    ASSERT_EQ(Write(), 0);
    const tagOVLCommunicationParam written = m_record;
    EXPECT_EQ(Read(), 0) << Bytes();
    EXPECT_EQ(m_record, written) << Bytes();
}

TEST_F(RunningParameterTest, TheNextIndexLivesInMemoryOnly) {
    m_record.nextServerIndex = 5;
    ASSERT_EQ(Write(), 0);
    EXPECT_EQ(Read(), 0);
    EXPECT_EQ(m_record.nextServerIndex, 0);
    EXPECT_EQ(Bytes().find("Index"), std::string::npos);
}

TEST_F(RunningParameterTest, MissingElementsHaveDefaultsAndAreAdded) {
    EXPECT_EQ(ReadBytes("<RunningParameters><HeartbeatInterval>12</HeartbeatInterval></RunningParameters>"),
              kParameterFileIncomplete);
    tagOVLCommunicationParam expected;
    expected.heartbeatInterval_s = 12;
    EXPECT_EQ(m_record, expected);
    EXPECT_EQ(Write(), 0);
    EXPECT_EQ(Read(), 0);
    EXPECT_EQ(m_record, expected);
}

TEST_F(RunningParameterTest, UnknownElementsAndCommentsAreKept) {
    EXPECT_NE(
        ReadBytes(
            "<?xml version=\"1.0\" encoding=\"GBK\"?>\n<!-- \xC8\xCE -->\n<RunningParameters kind=\"x\">"
            "<Site name=\"y\"><Deep>1</Deep></Site><HeartbeatInterval><!-- why -->12</HeartbeatInterval>"
            "</RunningParameters>"),
        0);
    EXPECT_EQ(m_record.heartbeatInterval_s, 12);
    m_record.value03 = 99;
    EXPECT_EQ(Write(), 0);
    const std::string bytes = Bytes();
    for (const char* part : {"encoding=\"UTF-8\"", "<!-- 任 -->", "kind=\"x\"", "<Site name=\"y\">",
                             "<Deep>1</Deep>", "<!-- why -->", "<Value03>99</Value03>"}) {
        EXPECT_NE(bytes.find(part), std::string::npos) << part << "\n" << bytes;
    }
    EXPECT_EQ(bytes.find("GBK"), std::string::npos);
    EXPECT_EQ(Read(), 0);
}

TEST_F(RunningParameterTest, AFileThatSaysTheSameIsNotWrittenAgain) {
    ASSERT_EQ(Write(), 0);
    const auto old = std::filesystem::last_write_time(m_folder.Path() / "actor.xml") - std::chrono::hours(1);
    std::filesystem::last_write_time(m_folder.Path() / "actor.xml", old);
    EXPECT_EQ(Write(), 0);
    EXPECT_EQ(std::filesystem::last_write_time(m_folder.Path() / "actor.xml"), old);
}

TEST_F(RunningParameterTest, ValuesThatAreNoGoodGetTheirDefaultAndALine) {
    struct Case {
        const char* from;
        const char* to;
    };
    const Case cases[] = {
        {"<HeartbeatInterval>60<", "<HeartbeatInterval>sixty<"},
        {"<HeartbeatInterval>60<", "<HeartbeatInterval>60s<"},
        {"<HeartbeatInterval>60<", "<HeartbeatInterval>2147483648<"},
        {"<HeartbeatInterval>60<", "<HeartbeatInterval>1.5<"},
        {"<HeartbeatInterval>60<", "<HeartbeatInterval><"},
        {"<HeartbeatInterval>60<", "<HeartbeatInterval>+-60<"},
        {"<ProgressReportInterval>5<", "<ProgressReportInterval>0<"},
        {"<ProgressReportInterval>5<", "<ProgressReportInterval>-1<"},
        {"<Flag05>1<", "<Flag05>yes<"},
        {"<Flag05>1<", "<Flag05>2<"},
        {"<Real18>8<", "<Real18>8,5<"},
        {"<Real18>8<", "<Real18>nan<"},
        {"<Real18>8<", "<Real18>1e99<"},
        {"<Item>8083<", "<Item>65536<"},
        {"<Item>8083<", "<Item>-1<"},
        {"<Item>8083</Item>", ""},
        {"<Item>127.0.0.1</Item>", ""},
    };
    for (const Case& c : cases) {
        LogCapture log;
        EXPECT_EQ(ReadBytes(With(WholeFile(), c.from, c.to)), 0) << c.to;
        EXPECT_EQ(m_record, m_defaults) << c.to;
        ASSERT_EQ(log.Lines().size(), 1u) << c.to;
        EXPECT_EQ(log.Lines()[0].level, 3);
        EXPECT_TRUE(log.Contains(Path())) << log.Texts()[0];
        EXPECT_TRUE(log.Contains(" line ")) << log.Texts()[0];
    }
}

TEST_F(RunningParameterTest, TheLineNamesFileElementAndRemedy) {
    LogCapture log;
    ReadBytes(With(WholeFile(), "<HeartbeatInterval>60<", "<HeartbeatInterval>sixty<"));
    EXPECT_EQ(log.Texts(),
              std::vector<std::string>{
                  "running parameters: " + Path() +
                  " line 4: <HeartbeatInterval> is \"sixty\", not a whole number from -2147483648 to "
                  "2147483647; the "
                  "default \"60\" is used. Correct the element, or remove it to have the default written."});
}

// The thread that reports progress rests for this long between two looks: it must rest at all. Heartbeats may
// go back to back, and a patrol time-out of 0 is a choice.
TEST_F(RunningParameterTest, TheReportIntervalIsAtLeastASecond) {
    std::string xml = With(WholeFile(), "<ProgressReportInterval>5<", "<ProgressReportInterval>1<");
    xml = With(xml, "<HeartbeatInterval>60<", "<HeartbeatInterval>0<");
    xml = With(xml, "<ProgressPatrolTimeout>60<", "<ProgressPatrolTimeout>0<");
    LogCapture log;
    EXPECT_EQ(ReadBytes(xml), 0);
    EXPECT_EQ(m_record.progressReportInterval_s, 1);
    EXPECT_EQ(m_record.heartbeatInterval_s, 0);
    EXPECT_EQ(m_record.progressPatrolTimeout_s, 0);
    EXPECT_TRUE(log.Lines().empty());
    ReadBytes(With(xml, "<ProgressReportInterval>1<", "<ProgressReportInterval>0<"));
    EXPECT_EQ(log.Texts(),
              std::vector<std::string>{
                  "running parameters: " + Path() +
                  " line 26: <ProgressReportInterval> is \"0\", not a whole number from 1 to 2147483647; the "
                  "default \"5\" is used. Correct the element, or remove it to have the default written."});
}

TEST_F(RunningParameterTest, OtherFieldsKeepTheirValuesBesideOneThatIsNoGood) {
    std::string xml = With(WholeFile(), "<Flag05>1<", "<Flag05>x<");
    EXPECT_EQ(ReadBytes(With(xml, "<Value04>25<", "<Value04> +26\n<")), 0);
    EXPECT_EQ(m_record.value04, 26);
    EXPECT_TRUE(m_record.flag05);
}

TEST_F(RunningParameterTest, AWriteLeavesWhatTheOwnerMustMend) {
    std::string xml = With(WholeFile(), "<Flag05>1<", "<Flag05>yes<");
    ReadBytes(With(xml, "<Value04>25</Value04>", ""));
    EXPECT_EQ(Write(), 0);
    EXPECT_NE(Bytes().find("<Flag05>yes<"), std::string::npos);
    EXPECT_NE(Bytes().find("<Value04>25<"), std::string::npos);
    m_record.flag05 = false;  // a value of its own replaces it
    EXPECT_EQ(Write(), 0);
    EXPECT_NE(Bytes().find("<Flag05>0<"), std::string::npos);
}

TEST_F(RunningParameterTest, ListsOfUnequalLengthStayAsTheyAre) {
    const std::string xml =
        With(WholeFile(), "<Item>127.0.0.1</Item>", "<Item>a</Item><Other/><Item>b</Item>");
    EXPECT_EQ(ReadBytes(xml), 0);
    EXPECT_EQ(m_record.serverAddresses, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(m_record.serverPorts, std::vector<std::uint16_t>{8083});
}

TEST_F(RunningParameterTest, ADamagedFileGivesTheDefaultsAndIsKeptBeforeAWrite) {
    std::string nested = "<RunningParameters>";
    for (int i = 0; i < 100'000; ++i) nested += "<a>";
    const std::string damaged[] = {
        "",
        "no xml at all",
        "<RunningParameters><Value01>1</Value01>",
        "<RunningParameters><Value01>1</RunningParameters>",
        "<Other />",
        "<!-- only this -->",
        std::string("<RunningParameters>\0</RunningParameters>", 40),
        "<RunningParameters>" + std::string(1024 * 1024, ' ') + "</RunningParameters>",
        "<RunningParameters>" + std::string(3 * 1024 * 1024, ' ') + "</RunningParameters>",
        nested};
    int number = 0;
    for (const std::string& bytes : damaged) {
        m_record.value01 = 5;
        LogCapture log;
        EXPECT_EQ(ReadBytes(bytes), kParameterFileDamaged);
        EXPECT_EQ(m_record, m_defaults);
        ASSERT_EQ(log.Lines().size(), 1u);
        EXPECT_EQ(log.Lines()[0].level, 4);
        EXPECT_TRUE(log.Contains("running parameters: " + Path() + " is damaged, the defaults are used: "));
        EXPECT_EQ(Bytes(), bytes);  // reading changes nothing
        EXPECT_EQ(Write(), 0);
        const std::string backup =
            "actor.xml.damaged" + (number == 0 ? std::string() : "." + std::to_string(number));
        EXPECT_TRUE(Exists(backup.c_str()));
        EXPECT_EQ(Bytes(backup.c_str()), bytes);
        EXPECT_TRUE(log.Contains("is kept as " + m_folder.Utf8(backup)));
        EXPECT_EQ(Read(), 0);
        ++number;
    }
}

TEST_F(RunningParameterTest, TheSameDamageIsKeptOnce) {
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(ReadBytes("<damaged"), kParameterFileDamaged);
        EXPECT_EQ(Write(), 0);
    }
    EXPECT_TRUE(Exists("actor.xml.damaged"));
    EXPECT_FALSE(Exists("actor.xml.damaged.1"));
}

TEST_F(RunningParameterTest, NothingIsWrittenOverWhatCannotBeRead) {
    std::filesystem::create_directory(m_folder.Path() / "actor.xml");
    LogCapture log;
    EXPECT_EQ(Read(), kParameterFileDamaged);
    EXPECT_EQ(m_record, m_defaults);
    EXPECT_NE(Write(), 0);
    EXPECT_TRUE(std::filesystem::is_directory(m_folder.Path() / "actor.xml"));
    EXPECT_TRUE(log.Contains("is not written"));
}

TEST_F(RunningParameterTest, AFolderThatIsNotThereIsALineAndAFailure) {
    LogCapture log;
    EXPECT_NE(OVLRunningParamToXml(&m_record, OVLStringToTString(m_folder.Utf8("no/such/actor.xml"))), 0);
    EXPECT_TRUE(log.Contains("not written"));
}

TEST_F(RunningParameterTest, NullIsRefused) {
    EXPECT_EQ(static_cast<std::uint32_t>(OVLReadRunningParameter(Path(), nullptr)), 0x80004005u);
    EXPECT_EQ(static_cast<std::uint32_t>(OVLRunningParamToXml(nullptr, OVLStringToTString(Path()))),
              0x80004005u);
}

// Readers see the old file or the new one, whoever writes at the moment.
TEST_F(RunningParameterTest, ManyMayReadAndWriteAtOnce) {
    ASSERT_EQ(Write(), 0);
    std::vector<std::thread> workers;
    for (int t = 0; t < 4; ++t) {
        workers.emplace_back([this, t] {
            for (int i = 0; i < 50; ++i) {
                tagOVLCommunicationParam record;
                EXPECT_EQ(OVLReadRunningParameter(Path(), &record), 0);
                record.value03 = 1000 * t + i;
                EXPECT_EQ(OVLRunningParamToXml(&record, OVLStringToTString(Path())), 0);
            }
        });
    }
    for (std::thread& worker : workers) worker.join();
    EXPECT_EQ(Read(), 0);
    EXPECT_EQ(m_record.value03 % 1000, 49) << "the last write of one of them";
    std::size_t files = 0;
    for ([[maybe_unused]] const auto& each : std::filesystem::directory_iterator(m_folder.Path())) ++files;
    EXPECT_EQ(files, 1u) << "a temporary file was left";
}

TEST_F(RunningParameterTest, ADamagedFileOfWhichNoBackupCanBeMadeStays) {
    kit::MakeSparseFile(m_folder.Path() / "actor.xml", 65ull * 1024 * 1024);
    LogCapture log;
    EXPECT_EQ(Read(), kParameterFileDamaged);
    EXPECT_NE(Write(), 0);
    EXPECT_EQ(std::filesystem::file_size(m_folder.Path() / "actor.xml"), 65ull * 1024 * 1024);
    EXPECT_FALSE(Exists("actor.xml.damaged"));
    EXPECT_TRUE(log.Contains("is not written, since no backup can be made"));
}

TEST_F(RunningParameterTest, TheParserKeepsUpWithTheDeepestTextThatIsAllowed) {
    std::string xml = "<RunningParameters>";
    for (int i = 0; i < 31; ++i) xml += "<a>";
    for (int i = 0; i < 31; ++i) xml += "</a>";
    EXPECT_EQ(ReadBytes(xml + "</RunningParameters>"), kParameterFileIncomplete);
}

}  // namespace
}  // namespace rq
