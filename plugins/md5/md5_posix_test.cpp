// Checksum files that md5sum reads and writes, and a disk that takes no more, on Linux.
#include "kit/reference_md5.h"
#include "md5_test_driver.h"
#include "plugin_common/small_files.h"

namespace rq::md5 {
namespace {

namespace fs = std::filesystem;

class Md5OnLinux : public PluginDriver {
  protected:
    Md5OnLinux() {
        for (const char* name : {"in/plain", "in/two  blanks ", "in/line\nend", "in/back\\slash", "in/*star",
                                 "in/sub/\xE4\xB8\xAD", "in/\r"})
            Write(name, name);
    }
    std::string FolderElement() const { return "<Folder><Path>" + PathOf("in") + "</Path></Folder>"; }
    std::string WriteElement() const {
        return "<WriteChecksums><Path>" + PathOf("sums") + "</Path></WriteChecksums>";
    }
    // What md5sum does in the folder, with status 0.
    std::string Md5Sum(const std::vector<std::string>& arguments) const {
        const kit::ScopedDirectory here(m_dir.Path());
        kit::Child sum("/usr/bin/md5sum", arguments);
        EXPECT_EQ(sum.ExitCode(), 0) << sum.Output() << sum.Errors();
        return sum.Output();
    }
};

TEST_F(Md5OnLinux, Md5sumReadsWhatIsWritten) {
    Do(FolderElement(), WriteElement());
    EXPECT_EQ(Status(), RQ_STATUS_FINISHED);
    const std::string said = Md5Sum({"--strict", "-c", "sums"});
    EXPECT_EQ(kit::ReadLines(At("sums")).size(), 7u);
    EXPECT_NE(said.find("in/plain: OK\n"), std::string::npos) << said;
}

TEST_F(Md5OnLinux, WhatMd5sumWritesIsRead) {
    std::vector<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(At("in")))
        if (entry.is_regular_file()) names.push_back(fs::relative(entry.path(), m_dir.Path()).string());
    for (const char* form : {"--text", "--binary", "--tag"}) {
        std::vector<std::string> arguments{form, "--"};
        arguments.insert(arguments.end(), names.begin(), names.end());
        Write("theirs", Md5Sum(arguments));
        m_published.clear();
        Do("<ChecksumFile><Path>" + PathOf("theirs") + "</Path></ChecksumFile>");
        EXPECT_EQ(Status(), RQ_STATUS_FINISHED) << form << ": " << Detail();
        EXPECT_EQ(m_published.size(), 7u) << form;
    }
}

TEST_F(Md5OnLinux, AFullDiskHasItsCodeAndLeavesNothing) {
    // More lines than are held back before they are written.
    for (int i = 0; i < 2000; ++i) Write("in/many/" + std::to_string(i), "");
    {
        const task::SmallFiles limit(70'000);
        Do(FolderElement(), WriteElement());
    }
    EXPECT_EQ(Status(), RQ_STATUS_ERROR);
    EXPECT_EQ(Error(), 0x84100013u);
    EXPECT_EQ(m_info->detailErrorCode, static_cast<std::uint32_t>(EFBIG));
    EXPECT_EQ(Names(), std::vector<std::string>{"in"});
}

}  // namespace
}  // namespace rq::md5
