// Where the plug-ins of this folder are. For targets that called rq_use_bad_plugins().
//
// Those of the folder breaches/ say in their first line which rule they break. The others:
//
//   scripted           does what its task text says; see script.h for the words
//   no_perform         lacks RQWorkerPerformTask
//   no_analyse         lacks RQWorkerAnalyseTask
//   only_required      exports RQWorkerAnalyseTask and RQWorkerPerformTask only, and works: status 0
//   wrong_version      describes itself as built for contract version 7
//   short_description  its description is 4 bytes long
//   init_fails         RQWorkerInit returns 77
//   null_task_info     leaves no task information record: analysis returns 12 for "fail...", else 0
//   needs_neighbour    needs librqneighbour, which lies beside it only; RQWorkerInit returns its 0
#pragma once

#include <string>

namespace rq::test {

inline std::string BadPluginFolder(const std::string& name) {
    return std::string(RQ_BAD_PLUGIN_DIR "/") + name;
}

// Path of the library, in UTF-8.
inline std::string BadPlugin(const std::string& name) {
    return BadPluginFolder(name) + "/" + name + RQ_BAD_PLUGIN_SUFFIX;
}

}  // namespace rq::test
