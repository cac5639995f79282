#include "platform/found_process.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include "base/paths.h"
#include "kit/files.h"
#include "kit/stage_copy.h"
#include "platform/file_limit.h"
#include "platform/process_tree.h"

namespace rq::platform {
namespace {

using std::chrono::milliseconds;

#ifndef RQ_SANITIZED  // the checks of virtual calls open a pipe

// While it lives no descriptor can be opened.
class NoDescriptors {
  public:
    NoDescriptors() {
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &m_before), 0);
        const rlimit none{1, m_before.rlim_max};  // with none at all nothing can be waited for either
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    }
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &m_before); }

  private:
    rlimit m_before{};
};

std::unique_ptr<ChildProcess> StartHanging() {
    ProcessSpec spec;
    spec.program = Utf8FromPath(kit::ProgramIn(RQ_FIXTURES, "rq_process_fixture"));
    spec.arguments = {"hang"};
    return ChildProcess::Start(spec);
}

TEST(FoundProcessOnLinux, WhatCannotBeLookedAtHasNotEnded) {
    auto started = StartHanging();
    ASSERT_NE(started, nullptr);
    const auto id = started->Id();
    const std::string mark = ProcessMark(id);
    const auto early = FindProcess(id, mark);
    ASSERT_NE(early, nullptr);
    std::unique_ptr<ChildProcess> late;
    {
        const NoDescriptors none;
        EXPECT_EQ(LookForProcess(id, mark), Presence::Unknown);
        EXPECT_EQ(FindTree("any"), std::nullopt);
        EXPECT_FALSE(early->Wait(milliseconds(0)));
        EXPECT_FALSE(early->Wait(milliseconds(120)));
        early->KillTree();
        late = FindProcess(id, mark);
        ASSERT_NE(late, nullptr);
        EXPECT_FALSE(late->Wait(milliseconds(120)));
        late->KillTree();
        late->RequestEnd();
    }
    EXPECT_EQ(LookForProcess(id, mark), Presence::There) << "nobody has ended it";
    EXPECT_FALSE(late->Wait(milliseconds(120)));
    late->KillTree();
    EXPECT_TRUE(late->Wait(kit::kPatience));
    EXPECT_TRUE(early->Wait(milliseconds(0)));
}

// By the process' own descriptor, or because nobody has its number.
TEST(FoundProcessOnLinux, TheEndOfWhatCannotBeLookedAtIsSeen) {
    auto started = StartHanging();
    ASSERT_NE(started, nullptr);
    const auto found = FindProcess(started->Id(), ProcessMark(started->Id()));
    ASSERT_NE(found, nullptr);
    const NoDescriptors none;
    started->KillTree();
    EXPECT_TRUE(found->Wait(kit::kPatience));
    EXPECT_TRUE(started->Wait(kit::kPatience));
    const auto id = started->Id();
    started.reset();
    EXPECT_EQ(LookForProcess(id, "x.1"), Presence::Gone);
}

#endif

TEST(FoundProcessOnLinux, AMarkThatKnowsNoBootIsNoProofOfAnother) {
    const auto id = CurrentProcessId();
    const std::string mark = ProcessMark(id);
    ASSERT_NE(mark.find('.'), std::string::npos);
    EXPECT_EQ(LookForProcess(id, mark.substr(mark.find('.'))), Presence::Unknown);
    EXPECT_EQ(LookForProcess(id, mark.substr(mark.find('.')) + "1"), Presence::Gone);
    EXPECT_EQ(LookForProcess(id, "another-boot" + mark.substr(mark.find('.'))), Presence::Gone);
    EXPECT_EQ(LookForProcess(0, mark), Presence::Unknown);
}

TEST(FileLimitOnLinux, IsRaisedAsFarAsAllowed) {
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit low{std::min<rlim_t>(before.rlim_max, 64), before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    EXPECT_EQ(RaiseFileLimit(), before.rlim_max == RLIM_INFINITY ? UINT64_MAX : before.rlim_max);
    rlimit raised{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &raised), 0);
    EXPECT_EQ(raised.rlim_cur, before.rlim_max);
    setrlimit(RLIMIT_NOFILE, &before);
}

}  // namespace
}  // namespace rq::platform
