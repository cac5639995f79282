// What an engine is told at its start. Paths are UTF-8 and absolute. The limits have the documented values;
// tests make them shorter.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "engine/limits.h"
#include "engine/path_map.h"
#include "engine/retry.h"

namespace rq::engine {

// What an acknowledged change survives: a power cut, or the end of this process alone.
enum class Durability { Power, Process };

// How long and how much is kept. 0: no bound.
struct Retention {
    unsigned interval_min = 60;  // 0: only when asked
    unsigned logs_days = 30;
    std::uint64_t logs_MiB = 2048;
    unsigned output_days = 30;
    std::uint64_t output_MiB = 1024;
    unsigned dumps_days = 30;
    std::uint64_t dumps_MiB = 2048;
    unsigned events_days = 90;
    std::uint64_t events_max = 5'000'000;
};

struct EngineSettings {
    std::string dataFolder;         // store, token, parameter files, logs
    std::string stageFolder;        // where RQWorkerU and its files lie
    std::string logFolder;          // empty: "logs" in the data folder
    std::string logFolderFrom;      // the option or variable that named it, for complaints
    std::uint16_t linkPort = 8083;  // 0: any free one
    std::uint16_t httpPort = 8084;  // 0: any free one
    std::string listen;             // a further address for workers, besides 127.0.0.1; empty: none
    std::string httpListen;         // the same of the API
    unsigned maxWorkers = 0;        // 0: as many as there are processor cores
    Durability durability = Durability::Power;
    std::uint64_t outputLimit_MiB = 16;  // of what a worker writes to its streams
    Retention retention;
    NodeLimits node;

    // Shorter than this no heartbeat is missed: none comes while a final status waits for its
    // acknowledgement.
    std::chrono::milliseconds leastSilence = std::chrono::seconds(15);

    // A worker that has not connected after this is ended.
    std::chrono::milliseconds connectLimit = std::chrono::seconds(30);
    // How long a session whose connection broke may be resumed, at most an hour. 0: it may not.
    std::chrono::milliseconds resumeWindow = std::chrono::seconds(60);
    // A worker whose connection broke, and whose session cannot be resumed any more, has this long to end by
    // itself.
    std::chrono::milliseconds linkGrace = std::chrono::seconds(10);
    // From the destroy order to the end of the process tree.
    std::chrono::milliseconds destroyGrace = std::chrono::seconds(70);
    // From a cancel order to the end of the process tree.
    std::chrono::milliseconds cancelGrace = std::chrono::seconds(120);
    // From a finish order to the end of the process tree.
    std::chrono::milliseconds finishGrace = std::chrono::minutes(5);
    // A package worker without a task is ended after this. 0: at once.
    std::chrono::milliseconds packageIdle = std::chrono::seconds(60);
    // A worker of which nothing comes for three of these is ended. 0: the interval that the stage's actor.xml
    // gives to the worker.
    std::chrono::milliseconds heartbeatInterval = std::chrono::milliseconds(0);
    // Which tasks get another attempt, and when a type is stopped.
    RetryRules retry = RetryRules::Standard();
    // What paths in task texts are called on this node.
    PathMap paths;
    // An orderly end waits this long for its workers.
    std::chrono::milliseconds endGrace = std::chrono::seconds(10);
    // After a worker's end, for what it has sent to be read.
    std::chrono::milliseconds drainLimit = std::chrono::milliseconds(500);

    std::chrono::milliseconds helloLimit = std::chrono::seconds(5);
    std::chrono::milliseconds writeLimit = std::chrono::seconds(10);
    std::chrono::milliseconds ackDelay =
        std::chrono::milliseconds(100);  // at most, and never for a final status
    std::chrono::milliseconds pingInterval = std::chrono::seconds(15);
    std::chrono::milliseconds silenceLimit = std::chrono::seconds(60);
    std::size_t maxConnections = 4096;  // of the link
    std::size_t maxHttpConnections = 512;
};

}  // namespace rq::engine
