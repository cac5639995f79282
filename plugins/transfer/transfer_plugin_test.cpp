// The transfer plug-in through its exported functions, on both platforms.
#include <fstream>

#include "copy_stream.h"
#include "places.h"
#include "platform/process_facts.h"
#include "transfer_test_folder.h"
#include "transfer_work.h"

namespace rq::transfer {
namespace {

namespace fs = std::filesystem;

TEST_F(TransferTest, DescribesItself) {
    EXPECT_EQ(plugin::View(m_description->name), "transfer");
    ASSERT_EQ(m_description->typeCount, 1u);
    EXPECT_EQ(m_description->types[0], 0);
}

TEST_F(TransferTest, PassesTheCheck) {
    Write("a", Bytes(3 << 20));
    ExpectCheckPasses(Text(Item("a", "b"), Flags({"Overwrite", "MD5", "SHA256", "Verify", "Manifest"})));
    EXPECT_EQ(Read("b"), Read("a"));
    ExpectCheckPasses(Text(Item("a", "c"), Flags({"Overwrite"})));
    for (const char* name : {"tree/one", "tree/sub/two", "tree/sub/three"}) Write(name, Bytes(10'000));
    ExpectCheckPasses(Text(Item("tree", "copy") + Item("a", "d"), Flags({"Overwrite", "MD5", "Manifest"})),
                      "60");
    EXPECT_EQ(Read("copy/sub/two"), Read("tree/sub/two"));
    EXPECT_TRUE(Exists("copy.md5"));
}

// A move cannot be done twice, as the check would: there and back, nothing stays open.
TEST_F(TransferTest, MovesLeaveNothingOpen) {
    for (const char* name : {"here/one", "here/sub/two"}) Write(name, Bytes(10'000));
    const std::string other = OtherFileSystem();
    const fs::path elsewhere = other.empty() ? At("elsewhere") : NewFolderIn(other);
    fs::create_directory(elsewhere);
    const auto target = Utf8FromPath(elsewhere / "there");
    std::vector<std::size_t> handles;
    for (int i = 0; i < 40; ++i) {
        ASSERT_EQ(Do(Text(ItemOf(PathOf("here"), target), kMove)), RQ_STATUS_FINISHED) << Detail();
        ASSERT_EQ(Do(Text(ItemOf(target, PathOf("here")), kMove + Flags({"MD5"}))), RQ_STATUS_FINISHED)
            << Detail();
        handles.push_back(platform::HandleCount());
    }
    EXPECT_GT(handles.back(), 0u);
    EXPECT_LE(handles.back(), handles[9] + 2);
    EXPECT_EQ(Names("here/sub"), Strings{"two"});
    fs::remove_all(elsewhere);
}

// Around the buffers' size, with and without digests: the same bytes, the right digest, nothing else in the
// folder.
TEST_F(TransferTest, CopiesFilesOfEverySize) {
    const std::size_t n = kBuffer_bytes;
    for (const std::size_t size :
         {std::size_t{0}, std::size_t{1}, n - 1, n, n + 1, 3 * n, kBuffers * n + 7}) {
        Write("source", Bytes(size));
        for (const char* flags : {"", "<MD5>true</MD5>", "<SHA256>true</SHA256><Verify>true</Verify>"}) {
            EXPECT_EQ(Do(Text(Item("source", "out/新 target"), flags)), RQ_STATUS_ERROR);
            fs::create_directory(At("out"));
            ASSERT_EQ(Do(Text(Item("source", "out/新 target"), flags)), RQ_STATUS_FINISHED) << Detail();
            EXPECT_TRUE(Read("out/新 target") == Read("source")) << size;
            EXPECT_EQ(Names("out"), Strings{"新 target"});
            ASSERT_EQ(m_outputs.size(), 1u);
            EXPECT_EQ(m_outputs[0].first, PathOf("out/新 target"));
            EXPECT_EQ(m_outputs[0].second, "copied");
            EXPECT_EQ(m_outputs[0].size_bytes, size);
            EXPECT_EQ(m_outputs[0].kind, *flags == '\0' ? 0u : 3u);
            if (*flags != '\0') {
                EXPECT_EQ(m_outputs[0].further.substr(0, 36), "md5:" + kit::ReferenceMd5(At("source")))
                    << size;
            }
            ExpectWholeProgress();
            fs::remove_all(At("out"));
        }
    }
}

TEST_F(TransferTest, TellsDigestsAndComparisons) {
    Write("a", "abc");
    ASSERT_EQ(Do(Text(Item("a", "b"), Flags({"MD5", "SHA256", "Verify"}))), RQ_STATUS_FINISHED) << Detail();
    ASSERT_EQ(m_outputs.size(), 1u);
    EXPECT_EQ(m_outputs[0].further, std::string("md5:") + kAbcMd5 + " sha256:" + kAbcSha256);
    ASSERT_EQ(m_compared.size(), 1u);
    EXPECT_EQ(m_compared[0].first, PathOf("a"));
    EXPECT_EQ(m_compared[0].second, PathOf("b"));
    EXPECT_EQ(m_compared[0].firstMd5, kAbcMd5);
    EXPECT_EQ(m_compared[0].secondMd5, kAbcMd5);
    EXPECT_EQ(m_progress.back().total, 6);
    EXPECT_EQ(Further(), "1 of 1 files done");
    ASSERT_EQ(Do(Text(Item("a", "c"), Flags({"SHA256"}))), RQ_STATUS_FINISHED);
    EXPECT_EQ(m_outputs[0].further, std::string("sha256:") + kAbcSha256);
    ASSERT_EQ(m_compared.size(), 1u);
    EXPECT_EQ(m_compared[0].firstMd5 + m_compared[0].secondMd5, "");
}

// Each file that was transferred has an entry, compared or not; one that failed without a comparison has
// none.
TEST_F(TransferTest, TellsOneComparisonForEachFile) {
    const auto entries = [this] {
        Strings texts;
        for (const auto& entry : m_compared)
            texts.push_back(entry.first + " > " + entry.second + " " + entry.firstMd5);
        return texts;
    };
    // Paths as the plug-in makes them.
    const auto entry = [this](const std::string& first, const std::string& second, const std::string& md5) {
        return PathOf(first) + " > " + PathOf(second) + " " + md5;
    };
    for (const auto& [flags, md5] : {std::pair{"", ""}, std::pair{"<Verify>true</Verify>", kAbcMd5}}) {
        Write("a", "abc");
        Write("there", "old");
        ASSERT_EQ(Do(Text(Item("a", "b"), flags)), RQ_STATUS_FINISHED) << Detail();
        EXPECT_EQ(entries(), Strings{entry("a", "b", md5)});
        Do(Text(Item("a", "there") + Item("a", "c"), flags));
        EXPECT_EQ(entries(), Strings{entry("a", "c", md5)});
        ASSERT_EQ(Do(Text(Item("a", "d"), kMove + std::string(flags))), RQ_STATUS_FINISHED) << Detail();
        EXPECT_EQ(entries(), Strings{entry("a", "d", md5)});
        for (const char* name : {"b", "c", "d"}) fs::remove(At(name));
    }
    // A folder that gets another name as a whole has one output, and each of its files an entry.
    Write("tree/sub/x", "1");
    Write("tree/sub/y", "2");
    ASSERT_EQ(Do(Text(Item("tree", "moved"), kMove)), RQ_STATUS_FINISHED) << Detail();
    EXPECT_EQ(m_outputs.size(), 1u);
    ASSERT_EQ(m_compared.size(), 2u);
    EXPECT_EQ(fs::path(PathFromUtf8(m_compared[1].second)).make_preferred(),
              fs::path(At("moved/sub/y")).make_preferred());
}

TEST_F(TransferTest, AnExpectedMd5IsHeldAgainstTheSource) {
    Write("a", "abc");
    ASSERT_EQ(Do(Text(Item("a", "good", kAbcMd5))), RQ_STATUS_FINISHED) << Detail();
    ASSERT_EQ(m_compared.size(), 1u);
    EXPECT_EQ(m_compared[0].firstMd5, m_compared[0].secondMd5);
    for (const char* mode : {"", kMove}) {
        Do(Text(Item("a", "bad", kEmptyMd5), mode));
        ExpectFailure(
            7, std::string("the MD5 is ") + kAbcMd5 + ", not " + kEmptyMd5 + "; nothing was published");
        ASSERT_EQ(m_compared.size(), 1u);
        EXPECT_EQ(m_compared[0].firstMd5, kEmptyMd5);
        EXPECT_EQ(m_compared[0].secondMd5, kAbcMd5);
        EXPECT_EQ(Names(), (Strings{"a", "good"}));
    }
}

// Zeros stand for "not known".
TEST_F(TransferTest, AnExpectedMd5OfZerosIsNotCompared) {
    Write("a", "abc");
    const std::string zeros(32, '0');
    ASSERT_EQ(Do(Text(Item("a", "b", zeros))), RQ_STATUS_FINISHED) << Detail();
    ASSERT_EQ(Do(Text(Item("a", "c", zeros), kMove)), RQ_STATUS_FINISHED) << Detail();
    EXPECT_EQ(Names(), (Strings{"b", "c"}));
    ASSERT_EQ(m_compared.size(), 1u);
    EXPECT_EQ(m_compared[0].firstMd5, zeros);
    EXPECT_EQ(m_compared[0].secondMd5, kAbcMd5);
}

// What is on the disk is not what was written: found before the target has its name.
TEST_F(TransferTest, AVerificationThatFailsPublishesNothing) {
    Write("a", Bytes(200'000));
    fs::create_directory(At("out"));
    bool isSpoiled = false;
    m_onSignOfLife = [&] {
        for (const std::string& name : Names("out")) {
            if (fs::file_size(At("out/" + name)) != 200'000 || isSpoiled) continue;
            std::fstream file(At("out/" + name), std::ios::in | std::ios::out | std::ios::binary);
            file << "spoiled";
            isSpoiled = file.good();
        }
    };
    Do(Text(Item("a", "out/b"), Flags({"Verify"})));
    EXPECT_TRUE(isSpoiled);
    ExpectFailure(7, "what was written has the MD5 ");
    EXPECT_TRUE(Names("out").empty());
    EXPECT_EQ(fs::file_size(At("a")), 200'000u);
}

TEST_F(TransferTest, ATargetThatIsThereStays) {
    Write("a", "abc");
    Write("b", "old");
    for (const char* mode : {"", kMove}) {
        Do(Text(Item("a", "b"), mode));
        ExpectFailure(0x84100000,
                      "b: the target exists already; say <Overwrite>true</Overwrite> to replace it");
        EXPECT_EQ(Read("b"), "old");
        EXPECT_EQ(Read("a"), "abc");
    }
    EXPECT_EQ(Do(Text(Item("a", "b"), Flags({"Overwrite"}))), RQ_STATUS_FINISHED) << Detail();
    EXPECT_EQ(Read("b"), "abc");
    fs::create_directory(At("folder"));
    Do(Text(Item("a", "folder"), Flags({"Overwrite"})));
    ExpectFailure(0x84100000, "folder: the target exists and is no plain file; it is not overwritten");
}

// A late twin: the target comes into being while the copy is under way, and stays as it is.
TEST_F(TransferTest, ATwinThatWasQuickerKeepsItsTarget) {
    Write("a", Bytes(1 << 20));
    m_onSignOfLife = [&] {
        if (!Names().empty() && Names().front().front() == '.') Write("b", "twin");
    };
    Do(Text(Item("a", "b"), Flags({"MD5"})));
    ExpectFailure(0x84100000, "the target has come into being meanwhile");
    EXPECT_EQ(Read("b"), "twin");
    EXPECT_EQ(Names(), (Strings{"a", "b"}));
}

TEST_F(TransferTest, ATargetThatIsTheSourceIsRefused) {
    Write("a", "abc");
    fs::create_hard_link(At("a"), At("second"));
    Write("folder/x", "1");
    for (const char* mode : {"", kMove}) {
        for (const char* target : {"a", "./a", "second"}) {
            Do(Text(Item("a", target), mode + Flags({"Overwrite"})));
            ExpectFailure(0x84100001, ": the target is the source ");
        }
        for (const char* target : {"folder", "folder/inside", "folder/./more/inside"}) {
            Do(Text(Item("folder", target), mode + Flags({"Overwrite"})));
            ExpectFailure(0x84100001, ": the target is the source or lies in it: ");
        }
    }
    EXPECT_EQ(Read("a"), "abc");
    EXPECT_EQ(Names(), (Strings{"a", "folder", "second"}));
    EXPECT_EQ(Names("folder"), Strings{"x"});
}

// A folder that holds an entry of its own name, and whose entries go to its parent.
TEST_F(TransferTest, ASourceIsNotOverwrittenByItsNeighbour) {
    Write("b/b/x", "BB");
    Write("b/x", "X");
    for (const char* mode : {"", kMove}) {
        Do(Text(ItemOf(PathOf("b"), m_dir.Utf8()), mode + Flags({"Overwrite"})));
        ExpectFailure(0x84100001, "b: the target is a source of this task: ");
        EXPECT_EQ(Further().rfind("0 of 2 files done\n", 0), 0u) << Further();
        EXPECT_EQ(Read("b/b/x"), "BB");
        EXPECT_EQ(Read("b/x"), "X");
        EXPECT_EQ(Names(), Strings{"b"});
    }
}

TEST_F(TransferTest, ASourceIsNotOverwrittenByAnotherItem) {
    Write("tree/a", "abc");
    Write("tree/b", "own");
    Write("c", "new");
    Write("d", "name");
    for (const char* mode : {"", kMove}) {
        Do(Text(Item("tree", "there") + Item("c", "./d") + Item("d", "e"), mode + Flags({"Overwrite"})));
        ExpectFailure(0x84100001, "d: the target is a source of this task: " + PathOf("d") +
                                      "; nothing of its <Item> was done");
        EXPECT_EQ(Read("c"), "new");
        EXPECT_EQ(Read("e"), "name");
        EXPECT_EQ(Read("there/a"), "abc");
        fs::remove_all(At("there"));
        Write("tree/a", "abc");
        Write("tree/b", "own");
        Write("d", "name");
    }
    Write("c.md5", "a source too");
    Do(Text(Item("tree/a", "c") + Item("c.md5", "f"), Flags({"Overwrite", "Manifest"})));
    ExpectFailure(0x84100001, "c.md5: the target is a source of this task: ");
    EXPECT_EQ(Read("c"), "new");
    EXPECT_EQ(Read("c.md5"), "a source too");
    EXPECT_EQ(Read("f"), "a source too");
}

TEST_F(TransferTest, AReadOnlyTargetIsNotReplaced) {
    Write("a", "abc");
    Write("b", "old");
    fs::permissions(At("b"), fs::perms::owner_read);
    for (const char* mode : {"", kMove}) {
        Do(Text(Item("a", "b"), mode + Flags({"Overwrite"})));
        ExpectFailure(0x84100037,
                      "b: the target is marked as read-only; take the mark away, or choose another target");
    }
    fs::permissions(At("b"), fs::perms::owner_all);
    EXPECT_EQ(Read("b"), "old");
}

TEST_F(TransferTest, ASourceThatIsMissingDoesNotKeepTheOthers) {
    Write("a", "abc");
    Do(Text(Item("missing", "b") + Item("a", "c")));
    ExpectFailure(0x84100010, PathOf("missing") + ": " + kit::Words(kit::Codes().notFound));
    EXPECT_EQ(m_info->detailErrorCode, static_cast<std::uint32_t>(kit::Codes().notFound));
    EXPECT_EQ(Read("c"), "abc");
    EXPECT_EQ(Further().rfind("1 of 1 files done\n" + PathOf("missing") + ": ", 0), 0u) << Further();
    Do(Text(Item("a", "no folder/c")));
    ExpectFailure(0x84100013, ": no file can be made in the target's folder: ");
}

TEST_F(TransferTest, ASourceThatGrowsOrShrinksIsNotPublished) {
    for (const std::uintmax_t size : {60u << 20, 20u << 20}) {
        kit::MakeSparseFile(At("a"), 0);
        Write("a", Bytes(40u << 20));
        m_onSignOfLife = [&] {
            if (m_progress.size() > 1) kit::MakeSparseFile(At("a"), size);
        };
        Do(Text(Item("a", "b"), Flags({"MD5"}) + "<RateLimit_kBps>100000</RateLimit_kBps>"));
        ExpectFailure(0x84100011,
                      size > (40u << 20) ? "the source changed while it was read" : "the source ");
        EXPECT_EQ(Names(), Strings{"a"});
    }
}

TEST_F(TransferTest, ASourceThatVanishesIsNotPublished) {
    Write("a", Bytes(20u << 20));
    m_onSignOfLife = [&] {
        if (m_progress.size() > 1 && Exists("a")) fs::rename(At("a"), At("gone"));
    };
    Do(Text(Item("a", "b"), Flags({"MD5"}) + "<RateLimit_kBps>50000</RateLimit_kBps>"));
    ExpectFailure(0x84100039, "a: the source was removed or replaced while it was read");
    EXPECT_EQ(Names(), Strings{"gone"});
}

TEST_F(TransferTest, CopiesFoldersWithAllThatIsInThem) {
    Write("tree/a", "abc");
    Write("tree/sub/新 b", "");
    Write("tree/.c.0123456789abcdef.rqpart", "half");
    fs::create_directory(At("tree/empty"));
    EXPECT_EQ(Do(Text(Item("tree", "copy"), Flags({"MD5", "SHA256", "Manifest"}))), RQ_STATUS_FINISHED)
        << Detail();
    EXPECT_EQ(Names("copy"), (Strings{"a", "empty", "sub"}));
    EXPECT_EQ(Read("copy/a"), "abc");
    EXPECT_TRUE(Exists("copy/sub/新 b"));
    EXPECT_EQ(Read("copy.md5"), std::string(kAbcMd5) + "  copy/a\n" + kEmptyMd5 + "  copy/sub/新 b\n");
    EXPECT_EQ(Read("copy.sha256").substr(0, 73), std::string(kAbcSha256) + "  copy/a\n");
    EXPECT_EQ(Further(), "2 of 2 files done");
    ExpectWholeProgress();
    // What is there already is a failure of its own; what is missing is filled in.
    Write("tree/d", "new");
    Do(Text(Item("tree", "copy")));
    ExpectFailure(0x84100000, "a: the target exists already");
    EXPECT_EQ(Read("copy/d"), "new");
}

TEST_F(TransferTest, AManifestIsNotReplacedUnlessAsked) {
    Write("a", "abc");
    Write("b.md5", "mine");
    Do(Text(Item("a", "b"), Flags({"Manifest"})));
    ExpectFailure(0x84100000, "b.md5: the target exists already");
    EXPECT_EQ(Read("b.md5"), "mine");
    EXPECT_EQ(Do(Text(Item("a", "b"), Flags({"Manifest", "Overwrite"}))), RQ_STATUS_FINISHED) << Detail();
    EXPECT_EQ(Read("b.md5"), std::string(kAbcMd5) + "  b\n");
}

TEST_F(TransferTest, MovesByNameOnOneFileSystem) {
    Write("a", "abc");
    Write("tree/x", "1");
    Write("tree/sub/y", "22");
    ASSERT_EQ(Do(Text(Item("a", "b") + Item("tree", "moved"), kMove)), RQ_STATUS_FINISHED) << Detail();
    EXPECT_EQ(Names(), (Strings{"b", "moved"}));
    EXPECT_EQ(Read("moved/sub/y"), "22");
    ASSERT_EQ(m_outputs.size(), 2u);
    EXPECT_EQ(m_outputs[0].second, "renamed");
    EXPECT_EQ(m_outputs[1].first, PathOf("moved"));
    EXPECT_EQ(m_outputs[1].size_bytes, 3u);
    EXPECT_EQ(Further(), "3 of 3 files done");
    ExpectWholeProgress();
}

TEST_F(TransferTest, AMoveThatWantsDigestsReadsAndRenames) {
    Write("tree/a", "abc");
    ASSERT_EQ(Do(Text(Item("tree", "moved"), kMove + Flags({"Verify", "Manifest"}))), RQ_STATUS_FINISHED)
        << Detail();
    EXPECT_EQ(Names(), (Strings{"moved", "moved.md5"}));
    ASSERT_EQ(m_outputs.size(), 1u);
    EXPECT_EQ(m_outputs[0].second, "renamed");
    EXPECT_EQ(m_outputs[0].further, std::string("md5:") + kAbcMd5);
    ASSERT_EQ(m_compared.size(), 1u);
    EXPECT_EQ(m_compared[0].secondMd5, kAbcMd5);
    ExpectWholeProgress();
}

// Into a folder that is there: file by file, and what is in the way stays where it was.
TEST_F(TransferTest, AMoveIntoAFolderThatIsThereKeepsWhatFails) {
    Write("tree/a", "abc");
    Write("tree/b", "new");
    Write("there/b", "old");
    Do(Text(Item("tree", "there"), kMove));
    ExpectFailure(0x84100000, "b: the target exists already");
    EXPECT_EQ(Names("tree"), Strings{"b"});
    EXPECT_EQ(Read("there/a"), "abc");
    EXPECT_EQ(Read("there/b"), "old");
}

TEST_F(TransferTest, AMoveToAnotherFileSystemCopiesAndRemoves) {
    const std::string other = OtherFileSystem();
    if (other.empty()) GTEST_SKIP() << "this machine has no other file system to write to";
    const fs::path folder = NewFolderIn(other);
    Write("tree/a", Bytes(3 << 20));
    Write("tree/sub/b", "1");
    const std::string bytes = Read("tree/a");
    EXPECT_EQ(Do(Text(ItemOf(PathOf("tree"), Utf8FromPath(folder / "moved")), kMove + Flags({"Verify"}))),
              RQ_STATUS_FINISHED)
        << Detail();
    EXPECT_TRUE(kit::ReadBytes(folder / "moved/a") == bytes);
    EXPECT_TRUE(fs::exists(folder / "moved/sub/b"));
    EXPECT_FALSE(Exists("tree"));
    ASSERT_EQ(m_outputs.size(), 2u);
    EXPECT_EQ(m_outputs[0].second, "moved");
    fs::remove_all(folder);
}

// What a dead worker left in the source is no reason to keep the folder; what another one writes is.
TEST_F(TransferTest, AMoveRemovesWhatDeadWorkersLeft) {
    const std::string other = OtherFileSystem();
    std::vector<fs::path> targets{At("moved")};
    if (!other.empty()) targets.push_back(NewFolderIn(other) / "moved");
    for (const fs::path& target : targets) {
        const std::string items = ItemOf(PathOf("tree"), Utf8FromPath(target));
        Write("tree/a", "abc");
        Write("tree/sub/.b.0123456789abcdef.rqpart", "half");
        {
            task::Publication another;
            ASSERT_FALSE(another.Begin(PathOf("tree/sub/c"), {}, false, task::Publication::Cleaning::kLeave));
            Do(Text(items, kMove));
            ExpectFailure(0x8410003A, "sub: the target is complete, but the source is not removed: ");
            EXPECT_EQ(Names("tree/sub").size(), 1u);
            another.WriteAt(0, "c", 1);
            EXPECT_FALSE(another.Publish([](const std::string&) { return true; }));
        }
        EXPECT_EQ(Read("tree/sub/c"), "c");
        Write("tree/.a.fedcba9876543210.rqpart", "half");
        EXPECT_EQ(Do(Text(items, kMove)), RQ_STATUS_FINISHED) << Detail();
        EXPECT_FALSE(Exists("tree"));
        EXPECT_EQ(kit::ReadBytes(target / "sub" / "c"), "c");
        EXPECT_FALSE(fs::exists(target / "sub" / ".b.0123456789abcdef.rqpart"));
    }
    if (!other.empty()) fs::remove_all(targets.back().parent_path());
}

// A folder into which nobody else writes gets another name as a whole, but leftovers do not go with it.
TEST_F(TransferTest, LeftoversDoNotGetAnotherName) {
    Write("tree/a", "abc");
    Write("tree/.a.fedcba9876543210.rqpart", "half");
    EXPECT_EQ(Do(Text(Item("tree", "moved"), kMove)), RQ_STATUS_FINISHED) << Detail();
    EXPECT_FALSE(Exists("tree"));
    EXPECT_EQ(Names("moved"), Strings{"a"});
}

TEST_F(TransferTest, KeepsTimesAndSparseFiles) {
    kit::MakeSparseFile(At("a"), 300u << 20);
    const auto then = fs::last_write_time(At("a")) - std::chrono::hours(1000);
    fs::last_write_time(At("a"), then);
    for (const char* flags : {"", "<MD5>true</MD5>"}) {
        ASSERT_EQ(Do(Text(Item("a", "b"), flags + Flags({"Overwrite"}))), RQ_STATUS_FINISHED) << Detail();
        EXPECT_EQ(fs::file_size(At("b")), 300u << 20);
        EXPECT_LT(std::chrono::abs(fs::last_write_time(At("b")) - then), std::chrono::seconds(1));
        if (*flags != '\0') {
            EXPECT_EQ(m_outputs[0].further, "md5:" + kit::ReferenceMd5(At("a")));
        }
    }
}

TEST_F(TransferTest, StopsInTheMiddleOfAFile) {
    Write("a", Bytes(30u << 20));
    for (const auto& [order, status] :
         {std::pair{RQ_STOP_CANCEL, RQ_STATUS_CANCELLED}, std::pair{RQ_STOP_FINISH, RQ_STATUS_FINISHED}}) {
        for (const char* flags : {"", "<MD5>true</MD5>"}) {
            RQStore32(&m_stop, RQ_STOP_NONE);
            m_onSignOfLife = [&, stop = order] {
                if (m_progress.size() > 1) RQStore32(&m_stop, stop);
            };
            EXPECT_EQ(Do(Text(Item("a", "b") + Item("a", "c"), flags + std::string("<RateLimit_kBps>20000"
                                                                                   "</RateLimit_kBps>"))),
                      status);
            EXPECT_EQ(Names(), Strings{"a"});
            EXPECT_LT(m_progress.back().done, 60 << 20);
            if (order == RQ_STOP_FINISH) {
                EXPECT_EQ(Further(), "ended early: 0 of 2 files done");
            }
        }
    }
    RQStore32(&m_stop, RQ_STOP_NONE);
}

// All bytes are written, and the sync is waited for.
TEST_F(TransferTest, ACancelDuringTheSyncPublishesNothing) {
    Write("a", Bytes(200'000));
    fs::create_directory(At("out"));
    m_onSignOfLife = [&] {
        for (const std::string& name : Names("out"))
            if (fs::file_size(At("out/" + name)) == 200'000) RQStore32(&m_stop, RQ_STOP_CANCEL);
    };
    for (const char* flags : {"", "<Verify>true</Verify>"}) {
        RQStore32(&m_stop, RQ_STOP_NONE);
        EXPECT_EQ(Do(Text(Item("a", "out/b"), flags)), RQ_STATUS_CANCELLED);
        EXPECT_TRUE(Names("out").empty());
        EXPECT_TRUE(m_outputs.empty());
    }
    RQStore32(&m_stop, RQ_STOP_NONE);
}

TEST_F(TransferTest, AListOfAFolderCanBeEnded) {
    for (const char* name : {"a", "b", "c", "d"}) Write(name, "");
    FolderReader reader;
    ASSERT_EQ(reader.Open(m_dir.Utf8()), 0u);
    std::vector<Seen> entries;
    int asked = 0;
    EXPECT_EQ(reader.Next(entries, [&] { return ++asked < 5; }), 0u);
    EXPECT_LE(entries.size(), 4u);
    EXPECT_GE(entries.size(), 2u);
    EXPECT_EQ(asked, 5);
}

// Of several small files nothing is seen until all of them are synced, and then each is whole.
TEST_F(TransferTest, SmallFilesAreSyncedAndNamedTogether) {
    constexpr std::size_t kFiles = kBatchFiles * 2 + 3;
    const auto name = [](std::size_t i) { return "sub" + std::to_string(i % 3) + "/" + std::to_string(i); };
    for (std::size_t i = 0; i < kFiles; ++i) Write("tree/" + name(i), "file " + std::to_string(i));
    std::size_t together = 0;
    m_onSignOfLife = [&] {
        std::size_t half = 0;
        for (std::size_t sub = 0; sub < 3; ++sub) {
            const std::string folder = "out/sub" + std::to_string(sub);
            if (!Exists(folder)) continue;
            for (const std::string& entry : Names(folder)) half += task::IsTemporaryName(entry) ? 1 : 0;
        }
        together = std::max(together, half);
    };
    Write("out/sub1/" + std::to_string(1), "there");  // one that fails among them
    Do(Text(Item("tree", "out"), Flags({"MD5", "Verify"})));
    ExpectFailure(0x84100000, "the target exists already");
    EXPECT_GT(together, 8u);
    EXPECT_LE(together, kBatchFiles);
    for (std::size_t i = 0; i < kFiles; ++i) {
        if (i != 1) {
            EXPECT_EQ(Read("out/" + name(i)), "file " + std::to_string(i));
        }
    }
    EXPECT_EQ(m_outputs.size(), kFiles - 1);
    EXPECT_EQ(m_compared.size(), kFiles - 1);
    EXPECT_EQ(Further().rfind("258 of 259 files done\n", 0), 0u) << Further();
    ExpectWholeProgress();
}

// A folder whose entry would be filled into itself, again and again.
TEST_F(TransferTest, AFolderIsNotFilledFromWhatItGets) {
    Write("b/b/x", "BB");
    for (const char* mode : {"", kMove}) {
        Do(Text(ItemOf(PathOf("b"), m_dir.Utf8()), mode));
        ExpectFailure(0x84100001, "b: the target is a source of this task: ");
        EXPECT_EQ(Names(), Strings{"b"});
        EXPECT_EQ(Names("b"), Strings{"b"});
    }
}

TEST_F(TransferTest, KeepsToItsRate) {
    Write("a", Bytes(2'000'000));
    for (const char* flags : {"", "<MD5>true</MD5>"}) {
        const auto begin = std::chrono::steady_clock::now();
        ASSERT_EQ(Do(Text(Item("a", "b"), flags + std::string("<RateLimit_kBps>1000</RateLimit_kBps>") +
                                              Flags({"Overwrite"}))),
                  RQ_STATUS_FINISHED);
        EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1900));
    }
}

TEST_F(TransferTest, OddNamesAreMarkedInTheManifest) {
    const bool hasLineEnds = kit::RootName().empty();
    const std::string name = hasLineEnds ? "line\nend\\slash" : "plain";
    Write("tree/" + name, "abc");
    ASSERT_EQ(Do(Text(Item("tree", "copy"), Flags({"Manifest"}))), RQ_STATUS_FINISHED) << Detail();
    EXPECT_EQ(Read("copy.md5"), hasLineEnds ? std::string("\\") + kAbcMd5 + "  copy/line\\nend\\\\slash\n"
                                            : std::string(kAbcMd5) + "  copy/plain\n");
}

}  // namespace
}  // namespace rq::transfer
