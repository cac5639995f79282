// Names and paths on Windows.
#include "places.h"
#include "plugin_common/win_text.h"
#include "transfer_task.h"
#include "transfer_test_folder.h"

namespace rq::transfer {

namespace fs = std::filesystem;

std::string TransferTest::OtherFileSystem() {
    // In Wine, the memory of the system below.
    return kit::IsWine() && fs::is_directory("Z:\\dev\\shm") ? "Z:\\dev\\shm" : "";
}

namespace {

TEST_F(TransferTest, PathsLongerThan260CharactersWork) {
    std::string folder;
    for (int i = 0; i < 6; ++i) folder += std::string(60, 'd') + "/";
    const fs::path made(L"\\\\?\\" + At(folder).make_preferred().wstring());
    fs::create_directories(made);
    Write("a", "abc");
    EXPECT_EQ(Do(Text(Item("a", folder + "b"), Flags({"Verify", "Manifest"}))), RQ_STATUS_FINISHED)
        << Detail();
    EXPECT_EQ(kit::ReadBytes(made / "b"), "abc");
    EXPECT_EQ(Do(Text(Item(folder, "copy"))), RQ_STATUS_FINISHED) << Detail();
    EXPECT_EQ(Read("copy/b"), "abc");
    EXPECT_EQ(Do(Text(Item(folder + "b", folder + "c"), kMove)), RQ_STATUS_FINISHED) << Detail();
    EXPECT_TRUE(fs::exists(made / "c"));
    for (const char* name : {"b", "b.md5", "c"}) (void)RemoveFile(PathOf(folder + name));
    for (; !folder.empty(); folder.resize(folder.size() - 61)) EXPECT_EQ(RemoveFolder(PathOf(folder)), 0u);
}

TEST_F(TransferTest, AttributesAreKept) {
    Write("a", "abc");
    fs::permissions(At("a"), fs::perms::owner_read);
    EXPECT_EQ(Do(Text(Item("a", "b"))), RQ_STATUS_FINISHED) << Detail();
    EXPECT_EQ(fs::status(At("b")).permissions() & fs::perms::owner_write, fs::perms::none);
    fs::permissions(At("a"), fs::perms::owner_all);
    fs::permissions(At("b"), fs::perms::owner_all);
}

TEST_F(TransferTest, KeepsTimesOfFolders) {
    Write("tree/sub/a", "abc");
    const FILETIME then{0, 30'000'000};
    const HANDLE folder = ::CreateFileW(task::NativePath(PathOf("tree/sub")).c_str(), FILE_WRITE_ATTRIBUTES,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                        OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    ASSERT_TRUE(::SetFileTime(folder, nullptr, nullptr, &then));
    ::CloseHandle(folder);
    ASSERT_EQ(Do(Text(Item("tree", "copy"))), RQ_STATUS_FINISHED) << Detail();
    WIN32_FILE_ATTRIBUTE_DATA facts{};
    ASSERT_TRUE(
        ::GetFileAttributesExW(task::NativePath(PathOf("copy/sub")).c_str(), GetFileExInfoStandard, &facts));
    EXPECT_EQ(facts.ftLastWriteTime.dwHighDateTime, then.dwHighDateTime);
    EXPECT_EQ(facts.ftLastWriteTime.dwLowDateTime, then.dwLowDateTime);
}

TEST_F(TransferTest, NamesOfDevicesAreRefused) {
    Write("a", "abc");
    Do(Text(Item("a", "con.txt")));
    ExpectFailure(0x84100013, "Windows keeps the name CON for a device");
}

// Nor are such names given by a move, or to folders.
TEST_F(TransferTest, NamesThatWindowsChangesAreRefusedToMovesAndFolders) {
    Write("a", "abc");
    Write("tree/x", "1");
    for (const char* source : {"a", "tree"}) {
        for (const auto& [name, words] : {std::pair{"con.txt", "Windows keeps the name CON for a device"},
                                          std::pair{"b.", "Windows drops the dot or blank"},
                                          std::pair{"b ", "Windows drops the dot or blank"}}) {
            for (const char* mode : {"", kMove}) {
                Do(Text(Item(source, name), mode));
                ExpectFailure(0x84100013, words);
                EXPECT_EQ(Names(), (Strings{"a", "tree"}));
                EXPECT_EQ(Names("tree"), Strings{"x"});
            }
        }
    }
}

TEST_F(TransferTest, TheRootOfADriveKeepsItsSeparator) {
    TransferTask task;
    task::XmlError error;
    for (const auto& [given, path] : {std::pair{"C:\\", "C:\\"}, std::pair{"C:/", "C:/"},
                                      std::pair{"C:\\a\\", "C:\\a"}, std::pair{"\\\\s\\h\\", "\\\\s\\h"}}) {
        task = {};
        ASSERT_TRUE(ReadTransferTask(Text(ItemOf(given, "C:\\b")), task, error)) << given;
        EXPECT_EQ(task.items[0].source, path);
    }
    std::vector<Seen> entries;
    FolderReader reader;
    EXPECT_EQ(reader.Open("C:\\"), 0u);
    EXPECT_EQ(reader.Next(entries, [] { return true; }), 0u);
    EXPECT_FALSE(entries.empty());
}

// A server that is not there is an error with the system's words, soon.
TEST_F(TransferTest, AShareThatIsNotThereIsSaid) {
    Write("a", "abc");
    Do(Text(ItemOf("\\\\rq-no-such-server\\share\\a", PathOf("b"))));
    EXPECT_EQ(Status(), RQ_STATUS_ERROR);
    EXPECT_EQ(Error(), 0x84100010u) << Detail();
}

}  // namespace
}  // namespace rq::transfer
