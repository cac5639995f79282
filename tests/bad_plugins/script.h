// The script of the plug-in "scripted": steps divided by ";" or line ends, each a word and its arguments
// divided by blanks; TEXT is the rest of the step. The script is the environment variable RQ_SCRIPT when it
// is set, else what stands between <Script> and </Script> in the task text, else the whole task text.
//
// Steps of the analysis (all are carried out, in order, before it returns; the others are skipped):
//   id TEXT               the task ID
//   type N                the task type (3 when not said)
//   analyse-code N        what the analysis returns
//   analyse-sleep MS      sleeps
//   analyse-error TEXT    sets the detail error text
//   null-info             leaves no record
//   info-size N           the record says that it has N bytes
//   info-version N        ... and that it is of contract version N
//   two-pass              both flags of a review
//   source V N D          a source description: has video, frame rate N/D
//   capacity N            entries that the record's result lists have room for (8 when not said)
//
// Steps of the perform call, in order; `status` is what it leaves, otherwise 0, or 5 after RQ_STOP_CANCEL:
//   progress TOTAL DONE   one progress call
//   flood N               N progress calls, from 1 to N of N
//   alive S               a sign of life for S seconds
//   over                  150 of 100
//   backwards             80 of 100, then 40 of 100
//   negative              -5 of 100
//   sleep MS              sleeps, deaf to the stop flag
//   until-stop MS         polls the stop flag, at most MS; then goes on
//   held-until-stop MS    the same, with a progress call at each poll, so that a pause holds it
//   wait-for-stop MS      the same through the host service
//   status N              the status to leave
//   set-status N          stores the status now and goes on
//   error D C TEXT        sets the record's error fields: detail error code, error code, both texts
//   bad-error             sets texts that are not UTF-8
//   md5 FIRST             publishes an MD5 file entry in the record's list: computed 00 01 .. 0f
//   md5-bad-text          ... whose texts are not UTF-8
//   md5-overcount         stores a count above the capacity
//   publish-md5 FIRST     publishes one through the host service
//   publish-error D C TEXT  through the host service, from another thread
//   quiet S               through the host service
//   log N TEXT            through the host service
//   log-bad-text          ... a text that is not UTF-8
//   temporary-file NAME   makes a file in the temporary folder
//   touch PATH            makes a file
//   await-file PATH       waits until the file is there
//   run COMMAND           hands it to the system's command interpreter and waits for its end
//   throw TEXT            std::runtime_error
//   throw-int N           an int
//   throw-on-thread TEXT  std::runtime_error on a thread of its own: ends the process
//   late-callback MS      a thread that calls the progress callback MS after the perform call has returned
//   leave-thread MS       a thread that outlives the perform call
//   crash                 writes where nothing is mapped
//   crash-on-thread       ... on a thread of its own
//   crash-in-malloc       spoils a freed block so that the next allocation reads where nothing is mapped
//   spoil-heap            writes behind a block, so that its release aborts
//   call-nowhere          calls a function at address 0
//   divide-by-zero        divides a whole number by zero
//   overflow-stack        calls itself until the stack ends
//   overflow-on-thread    ... on a thread of its own
//   abort                 abort()
//
// RQWorkerInit logs "init parameters heartbeat=N" (or, with RQ_SCRIPT_INIT=text, "init text TEXT") and
// returns the number in RQ_SCRIPT_INIT_CODE, 0 without it. RQWorkerRelease logs "release". An analysis while
// a perform call runs logs "update TEXT" with the whole task text.
#pragma once

#include <rqworker/plugin.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace scripted {

struct Step {
    std::string word;
    std::string rest;
    std::vector<std::string> arguments;  // `rest`, divided at blanks

    std::int64_t Number(std::size_t index) const;
    // `rest` without the first `count` arguments.
    std::string TextAfter(std::size_t count) const;
};

std::vector<Step> ParseScript(std::string_view taskText);

// One task. Records are kept until the release, so that one in use outlives an update.
struct Record {
    TaskInfo info{};
    std::string taskId;
    std::string detailErrorText;
    std::string furtherText;
    std::vector<Step> steps;
    std::int32_t analyseCode = 0;
    bool isNull = false;

    std::uint32_t capacity = 8;
    std::vector<std::unique_ptr<RQMd5File>> md5Files;
    std::vector<std::unique_ptr<std::string>> texts;
    std::vector<const void*> md5Items;
    RQResultList md5List{};
    RQMd5Data md5Data{};
    RQReviewData reviewData{};
    std::vector<std::unique_ptr<RQSourceDescription>> sources;
    std::vector<const RQSourceDescription*> sourceItems;
    RQTranscodeData transcodeData{};
};

// What a perform call was given.
struct Call {
    const volatile std::uint32_t* stopFlag;
    RQProgressCallback progress;
    void* context;
    const RQHostServices* host;  // null when nobody asked for a description
};

std::unique_ptr<Record> AnalyseScript(std::string_view taskText);
// Whatever a step throws comes out of it. Threads that outlive the call are added to `threads`.
void RunScript(Record& record, const Call& call, std::vector<std::thread>& threads);

RQText Borrow(std::string_view text);
void Log(const RQHostServices* host, std::int32_t level, std::string_view text);

}  // namespace scripted
