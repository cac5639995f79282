#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>

#include "kit/temp_dir.h"
#include "link/journal.h"
#include "platform/files.h"

namespace rq::link {
namespace {

// A worker would wait for a reader, before it has connected.
TEST(JournalOnLinux, IsNoPipe) {
    const kit::TempDir folder;
    const std::string pipe = folder.Utf8("pipe");
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    LinkJournal journal;
    EXPECT_EQ(journal.Open(pipe), "no link journal: " + pipe + " is no plain file");
}

TEST(JournalOnLinux, ThatCannotBeWrittenFurtherEndsWithAWord) {
    const kit::TempDir folder;
    const std::string path = folder.Utf8("journal");
    std::vector<std::string> problems;
    LinkJournal journal;
    ASSERT_EQ(journal.Open(path, [&](const std::string& problem) { problems.push_back(problem); }), "");
    ASSERT_NE(std::signal(SIGXFSZ, SIG_IGN), SIG_ERR);
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit small{200, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    for (int i = 0; i < 4; ++i) journal.Connected("1");
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    EXPECT_EQ(problems, (std::vector<std::string>{"the link journal " + path +
                                                  " cannot be written (is the disk full?) and ends here"}));
    EXPECT_FALSE(journal.IsOpen());
    EXPECT_EQ(platform::ReadWholeFile(path).value_or("").rfind("{\"time\"", 0), 0u);
}

}  // namespace
}  // namespace rq::link
