#include "crashreport/target.h"

#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/ucontext.h>
#include <sys/user.h>
#include <unistd.h>

#include <array>
#include <optional>
#include <string>
#include <utility>

#if !defined(__x86_64__)
#error "the registers of this processor are not known here"
#endif

namespace rq::crashreport {
namespace {

// In the order of the debug information's numbers: rax, rdx, rcx, rbx, rsi, rdi, rbp, rsp, r8 to r15, rip.
using Registers = std::array<Dwarf_Word, 17>;
constexpr std::size_t kStackPointer = 7;
constexpr std::size_t kInstruction = 16;

Registers FromContext(const ucontext_t& context) {
    static constexpr std::array<int, 17> kOrder = {REG_RAX, REG_RDX, REG_RCX, REG_RBX, REG_RSI, REG_RDI,
                                                   REG_RBP, REG_RSP, REG_R8,  REG_R9,  REG_R10, REG_R11,
                                                   REG_R12, REG_R13, REG_R14, REG_R15, REG_RIP};
    Registers registers{};
    for (std::size_t i = 0; i < kOrder.size(); ++i)
        registers[i] = static_cast<Dwarf_Word>(context.uc_mcontext.gregs[kOrder[i]]);
    return registers;
}

std::optional<Registers> FromThread(pid_t thread) {
    user_regs_struct r{};
    if (::ptrace(PTRACE_GETREGS, thread, nullptr, &r) != 0) return std::nullopt;
    return Registers{r.rax, r.rdx, r.rcx, r.rbx, r.rsi, r.rdi, r.rbp, r.rsp, r.r8,
                     r.r9,  r.r10, r.r11, r.r12, r.r13, r.r14, r.r15, r.rip};
}

const Target& From(void* given) {
    return *static_cast<const Target*>(given);
}

// The iteration's state is the position of the thread given last, plus one.
pid_t NextThread(Dwfl*, void* given, void** state) {
    const auto& threads = From(given).Threads();
    auto next = reinterpret_cast<std::uintptr_t>(*state);
    if (next == threads.size()) return 0;
    *state = reinterpret_cast<void*>(next + 1);  // NOLINT(performance-no-int-to-ptr)
    return threads[next].id;
}

bool GetThread(Dwfl*, pid_t, void* given, void** state) {
    *state = given;
    return true;
}

bool ReadWord(Dwfl*, Dwarf_Addr address, Dwarf_Word* result, void* given) {
    return From(given).Read(address, result, sizeof *result);
}

bool SetInitialRegisters(Dwfl_Thread* thread, void* given) {
    return From(given).SetRegisters(thread);
}

}  // namespace

Target::Target(pid_t process, std::vector<HeldThread> threads, pid_t crashed, std::uint64_t context)
    : m_process(process),
      m_threads(std::move(threads)),
      m_crashed(crashed),
      m_context(context),
      m_memory(::open(("/proc/" + std::to_string(process) + "/mem").c_str(), O_RDONLY | O_CLOEXEC)) {}

Target::~Target() {
    if (m_memory >= 0) ::close(m_memory);
}

bool Target::Attach(Dwfl* session) {
    static const Dwfl_Thread_Callbacks callbacks = {NextThread,          GetThread, ReadWord,
                                                    SetInitialRegisters, nullptr,   nullptr};
    return dwfl_attach_state(session, nullptr, m_process, &callbacks, this);
}

bool Target::Read(std::uint64_t address, void* to, std::size_t size) const {
    return ::pread(m_memory, to, size, static_cast<off_t>(address)) == static_cast<ssize_t>(size);
}

bool Target::SetRegisters(Dwfl_Thread* thread) const {
    const pid_t id = dwfl_thread_tid(thread);
    std::optional<Registers> registers;
    ucontext_t context;
    if (id == m_crashed && m_context != 0 && Read(m_context, &context, sizeof context)) {
        registers = FromContext(context);
    } else {
        registers = FromThread(id);
    }
    if (!registers) return false;
    // A call that led nowhere has just stored where it came from; go on from there.
    Dwarf_Word caller = 0;
    if (dwfl_addrmodule(dwfl_thread_dwfl(thread), (*registers)[kInstruction]) == nullptr &&
        Read((*registers)[kStackPointer], &caller, sizeof caller)) {
        (*registers)[kInstruction] = caller;
        (*registers)[kStackPointer] += sizeof caller;
    }
    return dwfl_thread_state_registers(thread, 0, registers->size(), registers->data());
}

}  // namespace rq::crashreport
