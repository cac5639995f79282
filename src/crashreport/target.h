// What the unwinder needs of the held process: its threads, their registers, its memory. The crashed thread's
// registers are those of the moment of its crash, so that its stack begins with the function that crashed and
// not with the handler. One thread.
#pragma once

#include <elfutils/libdwfl.h>

#include <cstdint>
#include <vector>

#include "crashreport/held_threads.h"

namespace rq::crashreport {

class Target {
  public:
    // `context` is the address of the crashed thread's ucontext_t in the process, or 0.
    Target(pid_t process, std::vector<HeldThread> threads, pid_t crashed, std::uint64_t context);
    ~Target();
    Target(const Target&) = delete;
    Target& operator=(const Target&) = delete;

    pid_t Process() const { return m_process; }
    const std::vector<HeldThread>& Threads() const { return m_threads; }

    // The session asks this object from now on. False with the session's error set.
    bool Attach(Dwfl* session);

    bool Read(std::uint64_t address, void* to, std::size_t size) const;
    // Gives the thread's registers to the unwinder.
    bool SetRegisters(Dwfl_Thread* thread) const;

  private:
    const pid_t m_process;
    const std::vector<HeldThread> m_threads;
    const pid_t m_crashed;
    const std::uint64_t m_context;
    int m_memory = -1;
};

}  // namespace rq::crashreport
