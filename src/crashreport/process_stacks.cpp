#include "crashreport/process_stacks.h"

#include <cxxabi.h>
#include <elfutils/libdwfl.h>

#include <cinttypes>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "crashreport/target.h"

namespace rq::crashreport {
namespace {

// An overflowed stack has a hundred thousand frames that say the same.
constexpr int kMostFrames = 200;

using Session = std::unique_ptr<Dwfl, decltype(&dwfl_end)>;

// `target` outlives the session.
Session Open(Target& target, std::string& error) {
    static const Dwfl_Callbacks callbacks = {dwfl_linux_proc_find_elf, dwfl_standard_find_debuginfo, nullptr,
                                             nullptr};
    Session session(dwfl_begin(&callbacks), &dwfl_end);
    const auto fail = [&] {
        error = std::string("libdwfl: ") + dwfl_errmsg(-1);
        return Session(nullptr, &dwfl_end);
    };
    if (session == nullptr || dwfl_linux_proc_report(session.get(), target.Process()) != 0) return fail();
    if (dwfl_report_end(session.get(), nullptr, nullptr) != 0) return fail();
    if (!target.Attach(session.get())) return fail();
    return session;
}

std::string Readable(const char* symbol) {
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> plain(
        abi::__cxa_demangle(symbol, nullptr, nullptr, &status), &std::free);
    return status == 0 ? plain.get() : symbol;
}

// "file.cpp:12" without its folder; empty where there is no debug information.
std::string SourceOf(Dwfl_Module* module, Dwarf_Addr address) {
    Dwfl_Line* line = dwfl_module_getsrc(module, address);
    if (line == nullptr) return {};
    int number = 0;
    const char* file = dwfl_lineinfo(line, nullptr, &number, nullptr, nullptr, nullptr);
    if (file == nullptr) return {};
    const std::string_view path(file);
    return std::string(path.substr(path.rfind('/') + 1)) + ":" + std::to_string(number);
}

// "function+0x12 at file.cpp:12 in /path/library.so+0x345", as much of it as is known.
std::string PlaceOf(Dwfl* session, Dwarf_Addr address, Dwarf_Addr inFunction) {
    Dwfl_Module* module = dwfl_addrmodule(session, inFunction);
    if (module == nullptr) return "in no module";
    char number[32];
    std::string text = "?";
    GElf_Off offset = 0;
    GElf_Sym symbol;
    if (const char* name =
            dwfl_module_addrinfo(module, inFunction, &offset, &symbol, nullptr, nullptr, nullptr)) {
        std::snprintf(number, sizeof number, "+0x%" PRIx64, offset + (address - inFunction));
        text = Readable(name) + number;
    }
    if (const std::string source = SourceOf(module, inFunction); !source.empty()) text += " at " + source;
    Dwarf_Addr start = 0;
    const char* library =
        dwfl_module_info(module, nullptr, &start, nullptr, nullptr, nullptr, nullptr, nullptr);
    std::snprintf(number, sizeof number, "+0x%" PRIx64, address - start);
    return text + " in " + (library != nullptr ? library : "?") + number;
}

struct Walk {
    Dwfl* session;
    std::FILE* out;
    int frames = 0;
};

int OnFrame(Dwfl_Frame* frame, void* given) {
    Walk& walk = *static_cast<Walk*>(given);
    if (walk.frames == kMostFrames) {
        std::fputs("  ... and more\n", walk.out);
        return DWARF_CB_ABORT;
    }
    Dwarf_Addr address = 0;
    bool isActivation = false;
    if (!dwfl_frame_pc(frame, &address, &isActivation)) return DWARF_CB_ABORT;
    // A return address may already belong to the next function.
    const Dwarf_Addr inFunction = isActivation ? address : address - 1;
    std::fprintf(walk.out, "  #%-3d 0x%016" PRIx64 " %s\n", walk.frames++, address,
                 PlaceOf(walk.session, address, inFunction).c_str());
    std::fflush(walk.out);
    return DWARF_CB_OK;
}

bool WriteStack(Dwfl* session, const HeldThread& thread, bool isCrashed, std::FILE* out) {
    std::fprintf(out, "\nThread %d \"%s\"%s\n", thread.id, thread.name.c_str(), isCrashed ? ", crashed" : "");
    Walk walk{session, out};
    if (thread.isHeld) {
        dwfl_getthread_frames(session, thread.id, &OnFrame, &walk);
        if (walk.frames == 0) std::fprintf(out, "  cannot be read: %s\n", dwfl_errmsg(-1));
    } else {
        std::fputs("  did not stop in time\n", out);
    }
    std::fflush(out);
    return walk.frames != 0;
}

}  // namespace

bool WriteStacks(const CrashedProcess& process, std::FILE* out) {
    std::string error;
    Target target(process.id, HoldThreads(process.id, process.thread, error), process.thread,
                  process.context);
    const Session session = target.Threads().empty() ? Session(nullptr, &dwfl_end) : Open(target, error);
    if (session == nullptr) {
        std::fprintf(out, "\n%s\n", error.c_str());
        return false;
    }
    bool isCrashedRead = false;
    for (const HeldThread& thread : target.Threads()) {
        const bool isCrashed = thread.id == process.thread;
        const bool isRead = WriteStack(session.get(), thread, isCrashed && process.context != 0, out);
        if (isCrashed) isCrashedRead = isRead;
    }
    return isCrashedRead;
}

}  // namespace rq::crashreport
