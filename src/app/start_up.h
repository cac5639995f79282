// The worker's start: reads the command line, opens the log, and hands the task to the run driver. Main
// thread only; what ProcessCommandLine() holds is stored before any thread exists that reads it.
//
//   RQWorkerU TYPE PARAMETERS PORT         the parameter text itself
//   RQWorkerU TYPE FILE PORT FILEFLAG      the parameter text is the file's content
//
// Fewer than two arguments print the usage text; two end without a run.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "base/clock.h"

// The process entry: the exit code is 1 when the module handle or MFC is not to be had, 0 in every other
// case, whatever came of the run.
extern "C" int wmain(int argc, wchar_t* argv[]);

namespace rq {

// What the start takes from its surroundings; tests put something else in their place.
struct StartUpSeams {
    std::function<void*()> moduleHandle;
    std::function<bool(void*)> initialiseMfc;
    std::function<void*(const std::string& fileName)> loadLibrary;
    std::function<void()> pause;
    std::function<std::int32_t(const std::string& type, const std::string& parameters)> runWorker;
    Clock* clock = &SystemClock();

    static StartUpSeams Real();
};

int StartUp(int argc, wchar_t* const argv[], const StartUpSeams& seams);

// The texts of the usage, UTF-8, with their line ends.
std::string UsageText();

// "Package_20170531.101530.250000": what the log of a package task is named after. The microseconds are left
// out when there are none.
std::wstring PackageLogPrefix(const LocalTime& now);

}  // namespace rq
