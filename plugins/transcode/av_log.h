// FFmpeg's own log lines: its warnings and errors go to the worker's log as warnings, at most
// kMaxLines for a task; the rest is counted and told at the end. The first error since the last ask is kept,
// since it often says more than the code that a function returns ("moov atom not found").
//
// FFmpeg has one log for the whole process, and its lines come from any thread, also from threads of its own.
#pragma once

#include <string>

#include "rqworker/plugin.hpp"

namespace rq::transcode {

constexpr int kMaxLines = 50;

// For as long as it lives, FFmpeg's lines are taken by it. One at a time. Lines that come when there is none
// are lost; FFmpeg's own way, the console, belongs to the worker.
class AvLog {
  public:
    explicit AvLog(const plugin::Host& host);
    ~AvLog();
    AvLog(const AvLog&) = delete;
    AvLog& operator=(const AvLog&) = delete;

    // The first error line since the last call; empty when there was none.
    static std::string TakeError();
};

// FFmpeg's words for a code, with the error line that came with it when there was one.
std::string AvWordsWithLog(int code);

}  // namespace rq::transcode
