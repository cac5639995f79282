// What the tests of this room start: does what its first argument says.
#include "process_fixture.h"

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include "platform/arguments.h"
#include "platform/console.h"
#include "platform/environment.h"
#include "platform/files.h"
#include "platform/process.h"
#include "platform/start_up.h"

namespace {

using namespace rq::platform;

void PrintArguments(int argc, char** argv) {
    for (int i = 2; i < argc; ++i) std::printf("[%s]\n", argv[i]);
}

// Standard input, then a variable and the current directory; something on standard error.
void PrintStreams(const char* variable) {
    const std::string input((std::istreambuf_iterator<char>(std::cin)), std::istreambuf_iterator<char>());
    std::printf("%s %s %s\n", input.c_str(), GetEnvironment(variable).value_or("").c_str(),
                CurrentDirectory().c_str());
    std::fflush(stdout);
    std::fputs("bad\n", stderr);
}

// A process that is contained, has a child, and hangs. `successor` is started detached.
void ContainAndHang(const std::string& self, const std::string& file, const std::string& successor) {
    if (!ContainChildren()) return;
    ProcessSpec spec;
    spec.program = self;
    spec.arguments = {"hang"};
    const auto child = ChildProcess::Start(spec);
    if (child == nullptr || StartDetached("\"" + successor + "\"") <= 31) return;
    if (!ReplaceWholeFile(file, std::to_string(child->Id()) + "\n", false)) return;
    fixture::Hang();
}

// Started detached: tells by a file beside the program that it ran, with how many arguments, and how.
void TellThatItRan(int argc) {
    ReplaceWholeFile(ModuleFileName() + ".ran", std::to_string(argc) + (fixture::IsApart() ? " 1\n" : " 0\n"),
                     false);
}

}  // namespace

int main(int count, char** vector) {
    Arguments arguments(count, vector);
    const int argc = arguments.Count();
    char** argv = arguments.Vector();
    const std::string what = argc > 1 ? argv[1] : "";
    if (what == "exit") return std::atoi(argv[2]);
    if (what == "arguments") PrintArguments(argc, argv);
    if (what == "handles") fixture::PrintHandles(argc - 2, argv + 2);
    if (what == "signals") fixture::PrintSignals();
    if (what == "environment") fixture::PrintEnvironment();
    if (what == "streams") PrintStreams(argv[2]);
    if (what == "tree") std::printf(fixture::BeganInItsTree() ? "of its own\n" : "of somebody's\n");
    if (what == "hang") fixture::Hang();
    if (what == "ignore-end") {
        fixture::IgnoreEndRequests();
        std::printf("ready\n");
        std::fflush(stdout);
        fixture::Hang();
    }
    if (what == "grandchild") return fixture::LeaveGrandchild(argv[2]);
    if (what == "contain") ContainAndHang(argv[0], argv[2], argv[3]);
    if (what == "crash") fixture::Crash(argv[2]);
    if (what == "console") {
        std::printf("buffered ");
        WriteStandardOutput("written\n");
        std::printf("after");
    }
    if (what == "closed-reader") {
        for (int i = 0; i < 3; ++i) WriteStandardOutput("nobody reads this\n");
        return 5;
    }
    if (what.empty()) TellThatItRan(argc);
    return 0;
}
