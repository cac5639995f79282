// Links, rights, holes and disks on Linux.
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <set>

#include "places.h"
#include "transfer_test_folder.h"

namespace rq::transfer {

namespace fs = std::filesystem;

std::string TransferTest::OtherFileSystem() {
    struct stat memory {};
    struct stat disk {};
    const bool isOther = ::stat("/dev/shm", &memory) == 0 &&
                         ::stat(fs::temp_directory_path().c_str(), &disk) == 0 &&
                         memory.st_dev != disk.st_dev && ::access("/dev/shm", W_OK) == 0;
    return isOther ? "/dev/shm" : "";
}

namespace {

// A small file system of its own for a scope.
class SmallDisk {
  public:
    explicit SmallDisk(const fs::path& at, const char* options) : m_at(at) {
        fs::create_directory(at);
        m_isMounted = ::mount("tmpfs", at.c_str(), "tmpfs", 0, options) == 0;
    }
    ~SmallDisk() {
        if (m_isMounted) ::umount2(m_at.c_str(), MNT_DETACH);
    }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;
    bool IsMounted() const { return m_isMounted; }
    bool MakeReadOnly() const {
        return ::mount("tmpfs", m_at.c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, nullptr) == 0;
    }

  private:
    fs::path m_at;
    bool m_isMounted = false;
};

TEST_F(TransferTest, AFullDiskHasItsCodeAndLeavesNothing) {
    const SmallDisk disk(At("small"), "size=1m");
    if (!disk.IsMounted()) GTEST_SKIP() << "no file system may be mounted here";
    Write("a", Bytes(5 << 20));
    for (const char* flags : {"", "<MD5>true</MD5>"}) {
        Do(Text(Item("a", "small/b"), flags));
        ExpectFailure(0x84100038,
                      "No space left on device; the file needs 5242880 bytes: make room there, or choose "
                      "another target");
        EXPECT_EQ(m_info->detailErrorCode, static_cast<std::uint32_t>(ENOSPC));
        EXPECT_TRUE(Names("small").empty());
    }
    Do(Text(Item("a", "small/b"), kMove));
    ExpectFailure(0x84100038, "No space left on device");
    EXPECT_TRUE(Exists("a"));
}

TEST_F(TransferTest, AReadOnlyDiskHasItsCode) {
    const SmallDisk disk(At("small"), "size=1m");
    if (!disk.IsMounted() || !disk.MakeReadOnly()) GTEST_SKIP() << "no file system may be mounted here";
    Write("a", "abc");
    Do(Text(Item("a", "small/b")));
    ExpectFailure(0x84100037,
                  "Read-only file system; let the worker's user write there, or choose another target");
}

TEST_F(TransferTest, ASourceThatCannotBeRemovedIsSaid) {
    const SmallDisk disk(At("small"), "size=1m");
    if (!disk.IsMounted()) GTEST_SKIP() << "no file system may be mounted here";
    Write("small/a", "abc");
    if (!disk.MakeReadOnly()) GTEST_SKIP() << "no file system may be mounted here";
    Do(Text(Item("small/a", "b"), kMove));
    ExpectFailure(0x8410003A,
                  "a: the target is complete, but the source is not removed: Read-only file system");
    EXPECT_EQ(Read("b"), "abc");
    EXPECT_EQ(Read("small/a"), "abc");
    ASSERT_EQ(m_outputs.size(), 1u);
}

TEST_F(TransferTest, KeepsHolesAndRights) {
    {
        std::FILE* file = std::fopen(At("a").c_str(), "w");
        std::fputs("begin", file);
        std::fseek(file, 50 << 20, SEEK_SET);
        std::fputs("middle", file);
        std::fclose(file);
        kit::MakeSparseFile(At("a"), 90u << 20);
    }
    ASSERT_EQ(::chmod(At("a").c_str(), 0751), 0);
    struct stat source {};
    ASSERT_EQ(::stat(At("a").c_str(), &source), 0);
    if (source.st_blocks * 512 > 10 << 20) GTEST_SKIP() << "this file system has no holes";
    for (const char* flags : {"", "<MD5>true</MD5>"}) {
        ASSERT_EQ(Do(Text(Item("a", "b"), flags + Flags({"Overwrite"}))), RQ_STATUS_FINISHED) << Detail();
        struct stat target {};
        ASSERT_EQ(::stat(At("b").c_str(), &target), 0);
        EXPECT_LT(target.st_blocks * 512, 10 << 20);
        EXPECT_EQ(target.st_mode, source.st_mode);
        EXPECT_EQ(target.st_mtim.tv_sec, source.st_mtim.tv_sec);
        EXPECT_EQ(target.st_mtim.tv_nsec, source.st_mtim.tv_nsec);
        EXPECT_EQ(kit::ReferenceMd5(At("a")), kit::ReferenceMd5(At("b")));
    }
}

TEST_F(TransferTest, KeepsNoSetIdBits) {
    Write("tree/a", "abc");
    ASSERT_EQ(::chmod(At("tree/a").c_str(), 06755), 0);
    ASSERT_EQ(::chmod(At("tree").c_str(), 06755), 0);
    ASSERT_EQ(Do(Text(Item("tree", "copy"))), RQ_STATUS_FINISHED) << Detail();
    struct stat target {};
    ASSERT_EQ(::stat(At("copy/a").c_str(), &target), 0);
    EXPECT_EQ(target.st_mode & 07777u, 0755u);
    ASSERT_EQ(::stat(At("copy").c_str(), &target), 0);
    EXPECT_EQ(target.st_mode & 07777u, 0755u);
}

TEST_F(TransferTest, KeepsTimesAndRightsOfFolders) {
    Write("tree/sub/a", "abc");
    fs::last_write_time(At("tree/sub"), fs::last_write_time(At("tree/sub")) - std::chrono::hours(100));
    fs::permissions(At("tree/sub"), fs::perms::owner_read | fs::perms::owner_exec);
    ASSERT_EQ(Do(Text(Item("tree", "copy"))), RQ_STATUS_FINISHED) << Detail();
    EXPECT_EQ(fs::last_write_time(At("copy/sub")), fs::last_write_time(At("tree/sub")));
    EXPECT_EQ(fs::status(At("copy/sub")).permissions(), fs::perms::owner_read | fs::perms::owner_exec);
    fs::permissions(At("tree/sub"), fs::perms::owner_all);
    fs::permissions(At("copy/sub"), fs::perms::owner_all);
}

TEST_F(TransferTest, LinksInAFolderAreMadeAnew) {
    Write("tree/a", "abc");
    fs::create_symlink("a", At("tree/link"));
    fs::create_directory_symlink("/etc", At("tree/out"));
    EXPECT_EQ(Do(Text(Item("tree", "copy"))), RQ_STATUS_FINISHED) << Detail();
    EXPECT_EQ(fs::read_symlink(At("copy/link")), "a");
    EXPECT_EQ(fs::read_symlink(At("copy/out")), "/etc");
    // Again, with a link that leads elsewhere and a folder in the place of another.
    fs::remove(At("tree/link"));
    fs::create_symlink("b", At("tree/link"));
    EXPECT_EQ(Do(Text(Item("tree", "copy"), Flags({"Overwrite"}))), RQ_STATUS_FINISHED) << Detail();
    EXPECT_EQ(fs::read_symlink(At("copy/link")), "b");
    EXPECT_EQ(Names("copy"), (Strings{"a", "link", "out"}));
    fs::remove(At("copy/link"));
    fs::create_directory(At("copy/link"));
    Do(Text(Item("tree", "copy"), Flags({"Overwrite"})));
    ExpectFailure(0x84100000,
                  "copy/link: the target exists already and is no link and no file: remove it first");
    EXPECT_EQ(Names("copy"), (Strings{"a", "link", "out"}));
    fs::create_symlink(At("tree/a"), At("named"));
    EXPECT_EQ(Do(Text(Item("named", "b"))), RQ_STATUS_FINISHED) << Detail();
    EXPECT_FALSE(fs::is_symlink(At("b")));
    EXPECT_EQ(Read("b"), "abc");
    Do(Text(Item("named", "c"), kMove));
    ExpectFailure(0x84100010, "named: is a link, which is copied, not moved; name what it leads to");
    EXPECT_TRUE(fs::is_symlink(At("named")));
    EXPECT_FALSE(Exists("c"));
}

TEST_F(TransferTest, WhatIsNoFileIsLeftOut) {
    Write("tree/a", "abc");
    ASSERT_EQ(::mkfifo(At("tree/pipe").c_str(), 0600), 0);
    Do(Text(Item("tree", "copy")));
    ExpectFailure(0x84100010, "pipe: is no plain file, folder or link; it is left out");
    EXPECT_EQ(Names("copy"), Strings{"a"});
}

// Another user than the administrator, for a scope; the folder is given to that one.
class AsNobody {
  public:
    explicit AsNobody(const fs::path& folder) {
        if (::geteuid() != 0) return;
        constexpr uid_t kNobody = 65534;
        for (const auto& entry : fs::recursive_directory_iterator(folder))
            EXPECT_EQ(::chown(entry.path().c_str(), kNobody, kNobody), 0);
        EXPECT_EQ(::chown(folder.c_str(), kNobody, kNobody), 0);
        m_changed = ::seteuid(kNobody) == 0;
        EXPECT_TRUE(m_changed);
    }
    ~AsNobody() {
        if (m_changed) {
            EXPECT_EQ(::seteuid(0), 0);
        }
    }
    AsNobody(const AsNobody&) = delete;
    AsNobody& operator=(const AsNobody&) = delete;

  private:
    bool m_changed = false;
};

TEST_F(TransferTest, WhatCannotBeLookedAtIsAFailure) {
    Write("tree/a", "abc");
    Write("tree/names/x", "1");
    Write("tree/names/y", "2");
    Write("tree/shut/z", "3");
    const AsNobody user(m_dir.Path());
    fs::permissions(At("tree/names"), fs::perms::owner_read);  // names can be listed, and no more
    fs::permissions(At("tree/shut"), fs::perms::none);
    Do(Text(Item("tree", "copy")));
    fs::permissions(At("tree/names"), fs::perms::owner_all);
    fs::permissions(At("tree/shut"), fs::perms::owner_all);
    ExpectFailure(0x84100010, ": Permission denied");
    EXPECT_EQ(m_info->detailErrorCode, static_cast<std::uint32_t>(EACCES));
    EXPECT_EQ(Further().rfind("1 of 3 files done\n", 0), 0u) << Further();
    for (const char* name : {"tree/names/x", "tree/names/y", "tree/shut"})
        EXPECT_NE(Further().find(PathOf(name) + ": Permission denied"), std::string::npos) << Further();
    EXPECT_EQ(Read("copy/a"), "abc");
}

// md5sum and sha256sum take the manifests as they are.
TEST_F(TransferTest, OthersReadTheManifests) {
    Write("tree/a", "abc");
    Write("tree/line\nend", "1");
    Write("tree/sub/back\\slash", "2");
    ASSERT_EQ(Do(Text(Item("tree", "copy"), Flags({"MD5", "SHA256", "Manifest"}))), RQ_STATUS_FINISHED)
        << Detail();
    const kit::ScopedDirectory here(m_dir.Path());
    for (const char* ending : {"md5", "sha256"}) {
        kit::Child sum(std::string("/usr/bin/") + ending + "sum",
                       {"--strict", "-c", std::string("copy.") + ending});
        EXPECT_EQ(sum.ExitCode(), 0) << sum.Output() << sum.Errors();
    }
}

// In parts, so that a large folder takes no more memory than a small one.
TEST_F(TransferTest, ALargeFolderIsReadInParts) {
    const std::size_t files = FolderReader::kListed * 2 + 7;
    fs::create_directory(At("many"));
    for (std::size_t i = 0; i < files; ++i) std::ofstream(At("many/" + std::to_string(i)));
    FolderReader reader;
    ASSERT_EQ(reader.Open(PathOf("many")), 0u);
    std::set<std::string> names;
    std::vector<Seen> entries;
    int parts = 0;
    for (;;) {
        EXPECT_EQ(reader.Next(entries, [] { return true; }), 0u);
        if (entries.empty()) break;
        ++parts;
        EXPECT_LE(entries.size(), FolderReader::kListed);
        for (std::size_t i = 1; i < entries.size(); ++i) EXPECT_LT(entries[i - 1].name, entries[i].name);
        for (const Seen& entry : entries) names.insert(entry.name);
    }
    EXPECT_EQ(parts, 3);
    EXPECT_EQ(names.size(), files);
}

// The work for each item does not grow with the number of items.
TEST_F(TransferTest, ManyItemsTakeTimeInProportion) {
    Write("a", "abc");
    Write("b", "there");
    std::string items;
    for (int i = 0; i < 80'000; ++i) items += Item("a", "b");
    items += Item("a", "c");
    const auto begin = std::chrono::steady_clock::now();
    Do(Text(items));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));
    EXPECT_EQ(Further().rfind("1 of 80001 files done\n", 0), 0u) << Further().substr(0, 80);
}

// The whole size of a large file never lies in memory.
TEST_F(TransferTest, TakesLittleMemory) {
    const auto peak_kB = [] {
        for (const std::string& line : kit::ReadLines("/proc/self/status"))
            if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
        return 0L;
    };
    {
        std::FILE* file = std::fopen(At("a").c_str(), "w");
        const std::string part = Bytes(1 << 20);
        for (int i = 0; i < 200; ++i) std::fwrite(part.data(), 1, part.size(), file);
        std::fclose(file);
    }
    std::ofstream("/proc/self/clear_refs") << "5";  // the peak begins anew
    const long before = peak_kB();
    ASSERT_GT(before, 0);
    ASSERT_EQ(Do(Text(Item("a", "b"), Flags({"SHA256", "Verify"}))), RQ_STATUS_FINISHED) << Detail();
    EXPECT_LT(peak_kB() - before, 64 * 1024);
}

}  // namespace
}  // namespace rq::transfer
