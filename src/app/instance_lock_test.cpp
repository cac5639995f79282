#include "app/instance_lock.h"

#include <gtest/gtest.h>

#include "kit/child.h"
#include "kit/temp_dir.h"

namespace rq {
namespace {

using boost::interprocess::interprocess_exception;

// Another process that has the lock on "worker.uid" of a folder.
class Holder {
  public:
    explicit Holder(const kit::TempDir& dir) : m_child(RQ_LOCK_FIXTURE, {dir.Utf8("worker.uid")}) {
        EXPECT_TRUE(kit::WaitForText(m_child.OutputFile(), "locked"));
    }
    void End() {
        m_child.Kill();
        EXPECT_TRUE(m_child.Wait());
    }

  private:
    kit::Child m_child;
};

bool IsLockedElsewhere(const kit::TempDir& dir) {
    kit::Child child(RQ_LOCK_FIXTURE, {dir.Utf8("worker.uid")});
    // Either it is refused, or it has the lock and holds it.
    EXPECT_TRUE(kit::WaitUntil([&] { return !child.IsRunning() || child.Output() == "locked\n"; }));
    return child.Output().empty();
}

TEST(InstanceLock, IsRefusedTheSecondTimeInOneProcess) {
    const kit::TempDir dir;
    dir.Write("worker.uid", "x");
    InstanceLock lock(dir.Path() / "worker.uid");
    EXPECT_TRUE(lock.TryLock());
    EXPECT_FALSE(lock.TryLock());
    EXPECT_TRUE(IsLockedElsewhere(dir));
    lock.Unlock();
    EXPECT_FALSE(IsLockedElsewhere(dir));
    EXPECT_TRUE(lock.TryLock());
}

TEST(InstanceLock, LettingGoOfWhatAnotherHoldsThrows) {
    const kit::TempDir dir;
    dir.Write("worker.uid", "x");
    Holder holder(dir);
    InstanceLock lock(dir.Path() / "worker.uid");
    EXPECT_FALSE(lock.TryLock());
    EXPECT_THROW(lock.Unlock(), interprocess_exception);
    holder.End();
    EXPECT_TRUE(lock.TryLock());
}

TEST(InstanceLock, AMissingFileThrows) {
    const kit::TempDir dir;
    EXPECT_THROW(InstanceLock(dir.Path() / "worker.uid"), interprocess_exception);
}

// The process-wide lock opens its file once for the process, so all of its life is told in one test.
TEST(ProcessInstanceLock, FromTheFirstUseOn) {
    const kit::TempDir dir;
    const kit::ScopedDirectory here(dir.Path());
    EXPECT_THROW(IsInstanceLockBusy(), interprocess_exception);
    EXPECT_THROW(ReleaseInstanceLock(), interprocess_exception);

    dir.Write("worker.uid", "x");
    ReleaseInstanceLock();  // nobody had it: this process has it now
    EXPECT_TRUE(IsLockedElsewhere(dir));
    EXPECT_TRUE(IsInstanceLockBusy());
    ReleaseInstanceLock();  // it was held here: let go
    EXPECT_FALSE(IsLockedElsewhere(dir));

    Holder holder(dir);
    EXPECT_TRUE(IsInstanceLockBusy());
    EXPECT_THROW(ReleaseInstanceLock(), interprocess_exception);
    holder.End();
    EXPECT_FALSE(IsInstanceLockBusy());
    EXPECT_TRUE(IsLockedElsewhere(dir));
}

}  // namespace
}  // namespace rq
