// The lock on "worker.uid" in the current directory. It is no guard of the start: two workers may run side by
// side. A restart takes it, or lets it go, before it starts its successor. The file is the installation's: a
// missing one makes the first use throw. Called by the thread of the restart alone.
#pragma once

#include <boost/interprocess/sync/file_lock.hpp>
#include <filesystem>

namespace rq {

// One file lock that is refused to other processes, and to a second try of this object. File locks of some
// systems belong to the process and are granted to it again and again, and letting go of somebody else's lock
// is silently accepted there; so this remembers whether it has the lock.
class InstanceLock {
  public:
    // Opens the file; boost::interprocess::interprocess_exception when it cannot be opened for reading and
    // writing.
    explicit InstanceLock(const std::filesystem::path& path);

    // Takes the lock if nobody has it. Does not wait.
    bool TryLock();
    // boost::interprocess::interprocess_exception when this object does not have it.
    void Unlock();

  private:
    boost::interprocess::file_lock m_file;
    bool m_held = false;
};

// False: nobody had the lock on "worker.uid", and this process has it now. True: it is held, here or
// elsewhere. The first call opens the file. Throws boost::interprocess::interprocess_exception when the
// system fails otherwise.
bool IsInstanceLockBusy();

// Lets go of the lock when it is held; takes it (and keeps it until the process ends) when nobody has it.
// Throws boost::interprocess::interprocess_exception when another process holds it.
void ReleaseInstanceLock();

}  // namespace rq
