#include "plugin_common/publish.h"

#include "kit/child.h"
#include "kit/os.h"
#include "kit/sparse_file.h"
#include "plugin_common/file.h"
#include "publish_test_folder.h"

namespace rq::task {
namespace {

namespace fs = std::filesystem;

TEST_F(PublishTest, TheTargetAppearsAtTheEnd) {
    Publication publication;
    ASSERT_FALSE(publication.Begin(PathOf("out.bin"), {}, false));
    EXPECT_EQ(publication.WriteAt(0, "hello", 5), 0u);
    EXPECT_EQ(publication.WriteAt(5, " world", 6), 0u);
    EXPECT_EQ(publication.WriteAt(0, "H", 1), 0u);
    EXPECT_EQ(publication.SizeBytes(), 11u);
    const std::string temporary = publication.TemporaryPath();
    EXPECT_EQ(PathFromUtf8(temporary).parent_path(), m_dir.Path());
    EXPECT_TRUE(IsTemporaryName(Utf8FromPath(PathFromUtf8(temporary).filename()))) << temporary;
    EXPECT_EQ(Names().size(), 1u);
    std::string seen;
    ASSERT_FALSE(publication.Publish([&](const std::string& path) {
        EXPECT_EQ(path, temporary);
        EXPECT_FALSE(fs::exists(Path("out.bin")));
        seen = kit::ReadBytes(PathFromUtf8(path));
        return true;
    }));
    EXPECT_EQ(seen, "Hello world");
    EXPECT_EQ(Names(), Strings{"out.bin"});
    EXPECT_EQ(Read("out.bin"), "Hello world");
}

TEST_F(PublishTest, NothingStaysOfWhatIsDiscardedOrForgotten) {
    {
        Publication publication;
        ASSERT_FALSE(publication.Begin(PathOf("a"), {}, false));
        publication.WriteAt(0, "x", 1);
        publication.Discard();
        EXPECT_TRUE(Names().empty());
        ASSERT_FALSE(publication.Begin(PathOf("a"), {}, false));
        EXPECT_EQ(Names().size(), 1u);
        const auto failure = publication.Publish([](const std::string&) { return false; });
        ASSERT_TRUE(failure);
        EXPECT_EQ(failure->problem, PublishProblem::kCheck);
        EXPECT_TRUE(Names().empty());
        ASSERT_FALSE(publication.Begin(PathOf("a"), {}, false));
    }
    EXPECT_TRUE(Names().empty());
}

TEST_F(PublishTest, RefusesATargetThatIsThere) {
    const std::string target = Write("out", "old");
    Publication publication;
    const auto failure = publication.Begin(target, {}, false);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->problem, PublishProblem::kTargetExists);
    EXPECT_EQ(failure->words, target + ": the target exists already");
    EXPECT_EQ(TaskErrorOf(failure->problem), static_cast<std::int32_t>(0x84100000));
    EXPECT_EQ(Read("out"), "old");
}

TEST_F(PublishTest, OverwritesWhenAsked) {
    const std::string target = Write("out", "old");
    Publication publication;
    ASSERT_FALSE(publication.Begin(target, {}, true));
    publication.WriteAt(0, "new", 3);
    EXPECT_EQ(Read("out"), "old");
    ASSERT_FALSE(publication.Publish(Agree));
    EXPECT_EQ(Read("out"), "new");
    EXPECT_EQ(Names(), Strings{"out"});
}

// Between the beginning and the end another process makes the target: it wins.
TEST_F(PublishTest, ATargetThatComesIntoBeingMeanwhileIsLeftAlone) {
    Publication publication;
    ASSERT_FALSE(publication.Begin(PathOf("out"), {}, false));
    publication.WriteAt(0, "mine", 4);
    const auto failure = publication.Publish([&](const std::string&) {
        Write("out", "theirs");
        return true;
    });
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->problem, PublishProblem::kTargetExists);
    EXPECT_EQ(Read("out"), "theirs");
    EXPECT_EQ(Names(), Strings{"out"});
}

TEST_F(PublishTest, DoesNotOverwriteAFolder) {
    fs::create_directory(Path("folder"));
    Publication publication;
    const auto failure = publication.Begin(PathOf("folder"), {}, true);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->problem, PublishProblem::kTargetExists);
}

TEST_F(PublishTest, RefusesTheSourceUnderAnotherName) {
    const std::string source = Write("source", "s");
    fs::create_hard_link(Path("source"), Path("second name"));
    fs::create_directory(Path("sub"));
    Publication publication;
    for (const std::string& target :
         {source, PathOf("second name"), PathOf("./source"), PathOf("sub/../source")}) {
        const auto failure = publication.Begin(target, {PathOf("missing"), source}, true);
        ASSERT_TRUE(failure) << target;
        EXPECT_EQ(failure->problem, PublishProblem::kTargetIsSource) << target;
        EXPECT_EQ(TaskErrorOf(failure->problem), static_cast<std::int32_t>(0x84100001));
    }
    EXPECT_TRUE(publication.Begin(PathOf("missing"), {PathOf("missing")}, true));
    EXPECT_EQ(Read("source"), "s");
    EXPECT_EQ(Names().size(), 3u);
}

TEST_F(PublishTest, SaysWhyTheFolderDoesNotDo) {
    Publication publication;
    auto failure = publication.Begin(PathOf("no such/out"), {}, false);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->problem, PublishProblem::kCreate);
    EXPECT_EQ(failure->systemCode, static_cast<std::uint32_t>(kit::Codes().folderNotFound));
    EXPECT_EQ(failure->words, PathOf("no such") + ": no file can be made in the target's folder: " +
                                  SystemWords(failure->systemCode));
    Write("file", "");
    failure = publication.Begin(PathOf("file/out"), {}, false);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->systemCode, static_cast<std::uint32_t>(kit::Codes().noFolder));
}

TEST_F(PublishTest, WritesFarMoreThanTheSystemIsToldAbout) {
    Publication publication;
    ASSERT_FALSE(publication.Begin(PathOf("out"), {}, false));
    const std::string bytes(1 << 20, 'y');
    for (int i = 0; i < 40; ++i)
        ASSERT_EQ(publication.WriteAt(static_cast<std::uint64_t>(i) << 20, bytes.data(), bytes.size()), 0u);
    ASSERT_FALSE(publication.Publish(Agree));
    EXPECT_EQ(fs::file_size(Path("out")), 40u << 20);
}

// What a copy of a file does: the bytes, its size with what is not written, its times and rights.
TEST_F(PublishTest, TakesOverWhatTheSourceHas) {
    const std::string source = Write("source", std::string(100'000, 's'));
    const auto then = fs::last_write_time(Path("source")) - std::chrono::hours(1000);
    fs::last_write_time(Path("source"), then);
    fs::permissions(Path("source"), fs::perms::owner_read);
    InputFile input;
    ASSERT_EQ(input.Open(source), 0u);
    EXPECT_TRUE(input.IsAt(source));
    Publication publication;
    ASSERT_FALSE(publication.Begin(PathOf("out"), {source}, false));
    std::uint64_t copied = 0;
    const std::uint32_t code = publication.CopyFrom(input, 0, 50'000, copied);
    if (code == Publication::kNotOffloaded) {
        EXPECT_EQ(copied, 0u);
        publication.WriteAt(0, std::string(50'000, 's').data(), 50'000);
    } else {
        EXPECT_EQ(code, 0u);
        EXPECT_EQ(copied, 50'000u);
    }
    publication.TakeFactsOf(input);
    EXPECT_EQ(publication.SetSize(60'000), 0u);
    EXPECT_EQ(publication.SizeBytes(), 60'000u);
    ASSERT_FALSE(publication.Publish(Agree));
    EXPECT_EQ(Read("out"), std::string(50'000, 's') + std::string(10'000, '\0'));
    EXPECT_LT(std::chrono::abs(fs::last_write_time(Path("out")) - then), std::chrono::milliseconds(1));
    EXPECT_EQ(fs::status(Path("out")).permissions() & fs::perms::owner_write, fs::perms::none);
    fs::permissions(Path("out"), fs::perms::owner_all);
    fs::permissions(Path("source"), fs::perms::owner_all);
}

TEST_F(PublishTest, TellsTheHolesOfASource) {
    Write("source", "");
    kit::MakeSparseFile(Path("source"), 64u << 20);
    InputFile input;
    ASSERT_EQ(input.Open(PathOf("source")), 0u);
    std::uint64_t begin = 1;
    std::uint64_t end = 0;
    ASSERT_EQ(input.NextData(0, begin, end), 0u);
    EXPECT_LE(begin, end);
    EXPECT_EQ(end, 64u << 20);
    EXPECT_FALSE(input.IsAt(PathOf("another")));
}

TEST_F(PublishTest, LongNamesAreCutBetweenCharacters) {
    std::string name;
    for (int i = 0; i < 83; ++i) name += "中";  // 249 bytes
    Publication publication;
    ASSERT_FALSE(publication.Begin(PathOf(name), {}, false));
    const std::string temporary = Utf8FromPath(PathFromUtf8(publication.TemporaryPath()).filename());
    EXPECT_EQ(temporary.substr(0, 199), "." + name.substr(0, 198));
    EXPECT_EQ(temporary.substr(199, 1), ".");
    ASSERT_FALSE(publication.Publish(Agree));
    EXPECT_EQ(Names(), Strings{name});
}

TEST(TemporaryNames, AreRecognised) {
    EXPECT_TRUE(IsTemporaryName(".clip.mp4.0123456789abcdef.rqpart"));
    EXPECT_TRUE(IsTemporaryName(".x.0123456789abcdef.rqpart"));
    for (const char* other : {"clip.mp4.0123456789abcdef.rqpart", ".clip.mp4.0123456789abcdeg.rqpart",
                              ".clip.0123456789abcde.rqpart", ".0123456789abcdef.rqpart", "..rqpart",
                              ".clip.mp4", ".clip.mp4.0123456789abcdef.rqparts", ""})
        EXPECT_FALSE(IsTemporaryName(other)) << other;
}

// What a killed process leaves is removed by the next one that publishes there; what belongs to a living one
// stays, and so does everything else.
TEST_F(PublishTest, RemovesWhatDeadProcessesLeft) {
    kit::Child child(PathFromUtf8(RQ_PUBLISH_FIXTURE), {PathOf("dead.mp4")});
    ASSERT_TRUE(kit::WaitForText(child.OutputFile(), "begun"));
    const Strings left = Names();
    ASSERT_EQ(left.size(), 1u);

    Publication first;
    ASSERT_FALSE(first.Begin(PathOf("a"), {}, false));
    EXPECT_EQ(Names().size(), 2u);  // its owner lives

    child.Kill();
    ASSERT_TRUE(child.Wait());
    Write(".other.0123456789abcdef.part", "");
    fs::create_directory(Path(".folder.0123456789abcdef.rqpart"));
    Publication second;
    ASSERT_FALSE(second.Begin(PathOf("b"), {}, false));
    const Strings names = Names();
    EXPECT_EQ(names.size(), 4u);
    EXPECT_EQ(std::find(names.begin(), names.end(), left[0]), names.end());
    ASSERT_FALSE(first.Publish(Agree));
    ASSERT_FALSE(second.Publish(Agree));
    EXPECT_TRUE(fs::exists(Path("a")));
    EXPECT_TRUE(fs::exists(Path("b")));
}

}  // namespace
}  // namespace rq::task
