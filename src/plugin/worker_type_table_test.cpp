#include "plugin/worker_type_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "base/paths.h"
#include "kit/temp_dir.h"
#include "util/log_capture.h"

namespace rq {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class WorkerTypeTableTest : public testing::Test {
  protected:
    WorkerTypeTableTest() : m_table(WideFromPath(m_dir.Path()) + PathSeparator()) {}

    void Write(std::string_view bytes) { m_dir.Write("RQWorkerConfig.xml", bytes); }
    std::string File() const { return m_dir.Utf8("RQWorkerConfig.xml"); }

    // The path of a type, "none" when the lookup fails.
    WideText PathOf(std::int32_t type) {
        WideText path = L"untouched";
        if (m_table.GetWorkerDllPath(type, path)) return path;
        EXPECT_EQ(path, L"untouched");
        return L"none";
    }

    std::vector<std::string> Failures() const {
        std::vector<std::string> texts;
        for (const LogLine& line : m_log.Lines()) {
            EXPECT_EQ(line.level, 4);
            EXPECT_EQ(line.tag, "ACT");
            EXPECT_EQ(line.module, "MAIN");
            texts.push_back(line.text);
        }
        return texts;
    }

    kit::TempDir m_dir;
    LogCapture m_log;
    WorkerTypeTable m_table;
};

TEST_F(WorkerTypeTableTest, FindsThePathOfAType) {
    Write(
        "<WorkerConfig>\n  <WORKER><TYPE>1</TYPE><PATH>Transcode\\TcWorker.dll</PATH></WORKER>\n"
        "  <WORKER><TYPE>14</TYPE><PATH>Package\\PkgWorker.dll</PATH></WORKER>\n</WorkerConfig>\n");
    EXPECT_EQ(PathOf(1), L"Transcode\\TcWorker.dll");
    EXPECT_EQ(PathOf(14), L"Package\\PkgWorker.dll");
    EXPECT_THAT(Failures(), IsEmpty());
}

TEST_F(WorkerTypeTableTest, MissingFile) {
    EXPECT_FALSE(m_table.LoadConfig());
    EXPECT_EQ(PathOf(1), L"none");
    const std::string line = "File [" + File() + "] does not exist.";
    EXPECT_THAT(Failures(), ElementsAre(line, line));
}

TEST_F(WorkerTypeTableTest, TextThatDoesNotParse) {
    Write("<a><WORKER></a>");
    EXPECT_FALSE(m_table.LoadConfig());
    EXPECT_EQ(PathOf(1), L"none");
    const std::string line = "File [" + File() + "] load failed.";
    const std::string cause = "RQWorkerConfig.xml: line 1: Error reading end tag.";
    EXPECT_THAT(Failures(), ElementsAre(line, cause, line, cause));
}

TEST_F(WorkerTypeTableTest, TheCauseNamesTheLine) {
    Write("<c>\n<WORKER><TYPE>1</TYPE><PATH>a</PATH></WORKER>\n<WORKER>\n<TYPE>2</WORKER></c>");
    EXPECT_FALSE(m_table.LoadConfig());
    Write("<c>\n\n<WORKER/>\n<a");
    EXPECT_FALSE(m_table.LoadConfig());
    Write("<c><WORKER/></d>");
    EXPECT_FALSE(m_table.LoadConfig());
    const std::string line = "File [" + File() + "] load failed.";
    EXPECT_THAT(Failures(), ElementsAre(line, "RQWorkerConfig.xml: line 3: Error reading end tag.", line,
                                        "RQWorkerConfig.xml: line 4: a \"<\" whose tag does not end", line,
                                        "RQWorkerConfig.xml: line 1: Error reading end tag."));
}

// What could be read of a table that does not parse is not used.
TEST_F(WorkerTypeTableTest, NothingOfATableThatDoesNotParseIsUsed) {
    Write("<c><WORKER><TYPE>1</TYPE><PATH>a</PATH></WORKER><WORKER></c>");
    EXPECT_EQ(PathOf(1), L"none");
    Write("<c><WORKER><TYPE>1</TYPE><PATH>a</PATH></WORKER>");
    EXPECT_EQ(PathOf(1), L"none");
    Write("<c><WORKER><TYPE>1</TYPE><PATH>a</PATH></WORKER><1></1></c>");
    EXPECT_EQ(PathOf(1), L"none");
}

TEST_F(WorkerTypeTableTest, OnlyTheFirstElementOfTheDocumentIsTheRoot) {
    Write("<WORKER/><c><WORKER><TYPE>1</TYPE><PATH>a</PATH></WORKER></c>");
    EXPECT_EQ(PathOf(1), L"none");
    Write("<c><WORKER><TYPE>1</TYPE><PATH>a</PATH></WORKER></c><c><WORKER><TYPE>2</TYPE></WORKER></c>");
    EXPECT_EQ(PathOf(1), L"a");
    EXPECT_EQ(PathOf(2), L"none");
}

TEST_F(WorkerTypeTableTest, WorkersStandDirectlyBelowTheRoot) {
    Write(
        "<c><d><WORKER><TYPE>1</TYPE><PATH>a</PATH></WORKER></d>"
        "<WORKER><TYPE>2</TYPE><PATH>b</PATH><WORKER><TYPE>3</TYPE></WORKER></WORKER></c>");
    EXPECT_EQ(PathOf(1), L"none");
    EXPECT_EQ(PathOf(2), L"b");
    EXPECT_EQ(PathOf(3), L"none");
}

TEST_F(WorkerTypeTableTest, BlanksEntitiesAndCharacterDataOfAText) {
    Write(
        "<c><WORKER><TYPE>1</TYPE><PATH>\n  a  b/c&amp;d.so\t</PATH></WORKER>"
        "<WORKER><TYPE>2</TYPE><PATH><![CDATA[a<b]]></PATH></WORKER>"
        "<WORKER><TYPE>3</TYPE><PATH>&#x8f6c;/a</PATH></WORKER></c>");
    EXPECT_EQ(PathOf(1), L"a b/c&d.so");
    EXPECT_EQ(PathOf(2), L"a<b");
    EXPECT_EQ(PathOf(3), L"\u8f6c/a");
}

TEST_F(WorkerTypeTableTest, AByteOrderMarkIsNoText) {
    Write("\xef\xbb\xbf<c><WORKER><TYPE>1</TYPE><PATH>a</PATH></WORKER></c>");
    EXPECT_EQ(PathOf(1), L"a");
}

TEST_F(WorkerTypeTableTest, EmptyFileDoesNotParse) {
    Write("");
    EXPECT_FALSE(m_table.LoadConfig());
    EXPECT_THAT(Failures(), ElementsAre("File [" + File() + "] load failed.",
                                        "RQWorkerConfig.xml: line 1: Error document empty."));
}

TEST_F(WorkerTypeTableTest, LargerThanAllowed) {
    Write("<c/>");
    std::filesystem::resize_file(m_dir.Path() / "RQWorkerConfig.xml", kMaxTableSize_bytes + 1);
    EXPECT_FALSE(m_table.LoadConfig());
    EXPECT_THAT(Failures(), ElementsAre("File [" + File() + "] load failed.",
                                        "RQWorkerConfig.xml: it has 536870913 bytes, 536870912 are allowed"));
}

TEST_F(WorkerTypeTableTest, FolderInPlaceOfTheFile) {
    std::filesystem::create_directory(m_dir.Path() / "RQWorkerConfig.xml");
    EXPECT_FALSE(m_table.LoadConfig());
    const std::vector<std::string> lines = Failures();
    ASSERT_FALSE(lines.empty());
    // Whether a folder can be opened for reading is the system's affair.
    if (lines.size() == 1) {
        EXPECT_EQ(lines[0], "File [" + File() + "] does not exist.");
    } else {
        EXPECT_EQ(lines[0], "File [" + File() + "] load failed.");
        EXPECT_THAT(lines[1], testing::StartsWith("RQWorkerConfig.xml: read "));
    }
}

TEST_F(WorkerTypeTableTest, DocumentWithoutAnElement) {
    Write("<?xml version=\"1.0\" encoding=\"UTF-8\"?><!-- nothing yet -->");
    EXPECT_FALSE(m_table.LoadConfig());
    EXPECT_EQ(PathOf(1), L"none");
    const std::string line = "File [" + File() + "] element is null.";
    EXPECT_THAT(Failures(), ElementsAre(line, line));
}

TEST_F(WorkerTypeTableTest, RootWithoutWorkersLoads) {
    Write("<x/>");
    EXPECT_TRUE(m_table.LoadConfig());
    EXPECT_THAT(Failures(), IsEmpty());
    EXPECT_EQ(PathOf(-7), L"none");
    EXPECT_THAT(Failures(), ElementsAre("Cannot Find Worker Dll! Type [-7]."));
}

TEST_F(WorkerTypeTableTest, NamesInAnyCase) {
    Write(
        "<WORKER><worker><type>3</type><path>a.dll</path></worker>"
        "<Worker><Type>4</Type><pAtH>b.dll</pAtH></Worker></WORKER>");
    EXPECT_EQ(PathOf(3), L"a.dll");
    EXPECT_EQ(PathOf(4), L"b.dll");
}

TEST_F(WorkerTypeTableTest, OtherElementsAreSkipped) {
    Write(
        "<c><!-- c --><NOTE>x</NOTE><WORKERS><TYPE>3</TYPE><PATH>no</PATH></WORKERS>"
        "<WORKER><NAME>n</NAME><TYPE>3</TYPE><PATH>yes</PATH></WORKER></c>");
    EXPECT_EQ(PathOf(3), L"yes");
}

TEST_F(WorkerTypeTableTest, WorkerWithoutTypeReplacesTheEntryBeforeIt) {
    Write("<c><WORKER><TYPE>3</TYPE><PATH>a</PATH></WORKER><WORKER><PATH>b</PATH></WORKER></c>");
    EXPECT_EQ(PathOf(3), L"b");
}

TEST_F(WorkerTypeTableTest, FirstWorkerWithoutTypeHasType0) {
    Write("<c><WORKER><PATH>a</PATH></WORKER></c>");
    EXPECT_EQ(PathOf(0), L"a");
}

TEST_F(WorkerTypeTableTest, TypeWithoutTextLeavesTheType) {
    Write(
        "<c><WORKER><TYPE>5</TYPE><TYPE/><PATH>a</PATH></WORKER><WORKER><TYPE></TYPE><PATH>b</PATH></"
        "WORKER></c>");
    EXPECT_EQ(PathOf(5), L"b");
}

TEST_F(WorkerTypeTableTest, TypeThatIsNoNumberIs0) {
    Write(
        "<c><WORKER><TYPE>7</TYPE><PATH>a</PATH></WORKER><WORKER><TYPE>tc</TYPE><PATH>b</PATH></WORKER></c>");
    EXPECT_EQ(PathOf(0), L"b");
    EXPECT_EQ(PathOf(7), L"a");
}

TEST_F(WorkerTypeTableTest, TypeTextWithBlanksSignAndTrailingJunk) {
    Write(
        "<c><WORKER><TYPE> +12abc "
        "</TYPE><PATH>a</PATH></WORKER><WORKER><TYPE>\n\t-4.9</TYPE><PATH>b</PATH></WORKER>"
        "<WORKER><TYPE>99999999999999999999</TYPE><PATH>c</PATH></WORKER>"
        "<WORKER><TYPE>-99999999999</TYPE><PATH>d</PATH></WORKER></c>");
    EXPECT_EQ(PathOf(12), L"a");
    EXPECT_EQ(PathOf(-4), L"b");
    EXPECT_EQ(PathOf(2147483647), L"c");
    EXPECT_EQ(PathOf(-2147483647 - 1), L"d");
}

TEST_F(WorkerTypeTableTest, TheLastTypeAndPathOfAWorkerWin) {
    Write("<c><WORKER><TYPE>1</TYPE><PATH>a</PATH><PATH>b</PATH><TYPE>2</TYPE></WORKER></c>");
    EXPECT_EQ(PathOf(2), L"b");
    EXPECT_EQ(PathOf(1), L"none");
}

TEST_F(WorkerTypeTableTest, TheLastWorkerOfATypeWins) {
    Write(
        "<c><WORKER><TYPE>1</TYPE><PATH>a</PATH></WORKER><WORKER><TYPE>1</TYPE><PATH>b</PATH></WORKER></c>");
    EXPECT_EQ(PathOf(1), L"b");
}

TEST_F(WorkerTypeTableTest, WorkerWithoutPathIsFoundWithAnEmptyOne) {
    Write("<c><WORKER><TYPE>1</TYPE><PATH>a</PATH></WORKER><WORKER><TYPE>1</TYPE></WORKER></c>");
    EXPECT_EQ(PathOf(1), L"");
}

TEST_F(WorkerTypeTableTest, PathWithoutTextIsEmpty) {
    Write("<c><WORKER><TYPE>1</TYPE><PATH>a</PATH><PATH/></WORKER></c>");
    EXPECT_EQ(PathOf(1), L"");
}

TEST_F(WorkerTypeTableTest, CommentBeforeATextDoesNotHideIt) {
    Write("<c><WORKER><TYPE><!-- transcode -->1</TYPE><PATH><!-- p -->a</PATH></WORKER></c>");
    EXPECT_EQ(PathOf(1), L"a");
}

TEST_F(WorkerTypeTableTest, IsReadAgainAtEachLookup) {
    Write(
        "<c><WORKER><TYPE>1</TYPE><PATH>a</PATH></WORKER><WORKER><TYPE>2</TYPE><PATH>b</PATH></WORKER></c>");
    EXPECT_EQ(PathOf(2), L"b");
    Write("<c><WORKER><TYPE>1</TYPE><PATH>z</PATH></WORKER></c>");
    EXPECT_EQ(PathOf(1), L"z");
    EXPECT_EQ(PathOf(2), L"none");
}

TEST_F(WorkerTypeTableTest, PathInUtf8) {
    Write(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
        "<c><WORKER><TYPE>1</TYPE><PATH>\xe8\xbd\xac\xe7\xa0\x81/a.so</PATH></WORKER></c>");
    EXPECT_EQ(PathOf(1), L"\u8f6c\u7801/a.so");
}

TEST_F(WorkerTypeTableTest, PathInGbk) {
    // Two characters, the second byte of the last one followed at once by a tag.
    Write("<c><WORKER><TYPE>1</TYPE><PATH>\xd7\xaa\xc2\xeb</PATH></WORKER></c>");
    EXPECT_EQ(PathOf(1), L"\u8f6c\u7801");
    EXPECT_THAT(Failures(), IsEmpty());
}

TEST_F(WorkerTypeTableTest, GbkUnderAUtf8DeclarationIsNoError) {
    // Read as UTF-8, the lead byte 0xE4 would swallow the "<" of the end tag.
    Write(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
        "<c><WORKER><TYPE>1</TYPE><PATH>a\xe4\xbd</PATH></WORKER></c>");
    EXPECT_EQ(PathOf(1), L"a\u6d63");
}

TEST_F(WorkerTypeTableTest, AByteOrderMarkBeforeBytesThatAreNotUtf8) {
    Write("\xEF\xBB\xBF<c><WORKER><TYPE>1</TYPE><PATH>a\xff\xff/b</PATH></WORKER></c>");
    EXPECT_EQ(PathOf(1), L"a\ufffd\ufffd/b");
    EXPECT_THAT(Failures(), IsEmpty());
}

TEST_F(WorkerTypeTableTest, BytesThatAreNeitherUtf8NorGbkAreNoError) {
    Write("<c><X>\xff\xff\xfe</X><WORKER><TYPE>1</TYPE><PATH>a\xff\xff/b</PATH></WORKER></c>");
    EXPECT_EQ(PathOf(1), L"a\ufffd\ufffd/b");
    EXPECT_THAT(Failures(), IsEmpty());
}

TEST_F(WorkerTypeTableTest, HundredThousandLevelsDoNotLoad) {
    std::string open;
    std::string close;
    for (int i = 0; i < 100000; ++i) {
        open += "<a>";
        close += "</a>";
    }
    Write(open + close);
    EXPECT_FALSE(m_table.LoadConfig());
    Write(open);
    EXPECT_FALSE(m_table.LoadConfig());
    const std::string line = "File [" + File() + "] load failed.";
    const std::string cause = "RQWorkerConfig.xml: line 1: elements nest deeper than 1000 levels";
    EXPECT_THAT(Failures(), ElementsAre(line, cause, line, cause));
}

TEST_F(WorkerTypeTableTest, NestingUpToTheLimitLoads) {
    std::string open;
    std::string close;
    for (std::size_t i = 1; i < kMaxTableNesting; ++i) {
        open += "<a>";
        close += "</a>";
    }
    Write("<c>" + open + close + "<WORKER><TYPE>1</TYPE><PATH>p</PATH></WORKER></c>");
    EXPECT_EQ(PathOf(1), L"p");
    Write("<c><a>" + open + close + "</a></c>");
    EXPECT_FALSE(m_table.LoadConfig());
}

TEST_F(WorkerTypeTableTest, CutAnywhereItEitherLoadsOrFailsCleanly) {
    const std::string whole =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?><!-- c --><c a=\"b\"><WORKER><TYPE>1</TYPE><PATH>"
        "\xe8\xbd\xac&amp;<![CDATA[x]]></PATH></WORKER></c>";
    for (std::size_t length = 0; length < whole.size(); ++length) {
        Write(whole.substr(0, length));
        EXPECT_FALSE(m_table.LoadConfig()) << length;
    }
    for (const std::string& text : Failures()) {
        EXPECT_TRUE(text == "File [" + File() + "] load failed." ||
                    text == "File [" + File() + "] element is null." ||
                    text.starts_with("RQWorkerConfig.xml: line 1: "))
            << text;
    }
}

// Of these its tree as a whole would take twenty times its size.
TEST_F(WorkerTypeTableTest, ValidTwentyMegabytesOfShortEntriesLoad) {
    std::string text = "<c>";
    for (int type = 0; text.size() < 20u * 1000u * 1000u; ++type) {
        text += "<WORKER><TYPE>" + std::to_string(type % 1000) + "</TYPE><PATH>a</PATH></WORKER>";
    }
    Write(text + "<WORKER><TYPE>7</TYPE><PATH>last</PATH></WORKER></c>");
    EXPECT_EQ(PathOf(7), L"last");
    EXPECT_EQ(PathOf(999), L"a");
    EXPECT_THAT(Failures(), IsEmpty());
}

TEST_F(WorkerTypeTableTest, ValidHundredMegabytesLoad) {
    std::string text = "<c>\n";
    const std::string comment = "<!--" + std::string(1000, 'x') + "-->\n";
    const std::string worker = "<WORKER><TYPE>1</TYPE><PATH>a</PATH></WORKER>\n";
    while (text.size() < 100u * 1000u * 1000u) text += comment + worker;
    text += "<WORKER><TYPE>2</TYPE><PATH>last</PATH></WORKER></c>\n";
    Write(text);
    EXPECT_EQ(PathOf(2), L"last");
    EXPECT_THAT(Failures(), IsEmpty());
}

}  // namespace
}  // namespace rq
