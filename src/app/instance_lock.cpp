#include "app/instance_lock.h"

namespace rq {

namespace {

constexpr const char* kLockFile = "worker.uid";

// Made at the first use; what ReleaseInstanceLock works on.
InstanceLock* g_instanceLock = nullptr;

}  // namespace

// In the system's own characters: a narrow path would go through a code page on Windows.
InstanceLock::InstanceLock(const std::filesystem::path& path) : m_file(path.c_str()) {}

bool InstanceLock::TryLock() {
    if (m_held) return false;
    m_held = m_file.try_lock();
    return m_held;
}

void InstanceLock::Unlock() {
    namespace ipc = boost::interprocess;
    if (!m_held) throw ipc::interprocess_exception(ipc::error_info(ipc::lock_error));
    m_file.unlock();
    m_held = false;
}

bool IsInstanceLockBusy() {
    static InstanceLock lock(kLockFile);
    g_instanceLock = &lock;
    return !g_instanceLock->TryLock();
}

void ReleaseInstanceLock() {
    if (IsInstanceLockBusy()) g_instanceLock->Unlock();
}

}  // namespace rq
