// The running-parameter file of a plug-in that reads it itself (worker type 23). It is given the name only
// and looks for it in the current directory, its own folder; the worker's file lies beside the executable.
#pragma once

#include "base/text.h"

namespace rq {

inline constexpr const char* kParameterFile = "actor.xml";

// Puts a copy of the worker's file into the current directory when there is none. One that is there already
// stays, since it may be meant for this plug-in; a line in the log says when it differs from the worker's.
// `moduleDirectory` ends with a separator. Main thread; failures are a line in the log.
void ProvideParameterFile(const WideText& moduleDirectory);

}  // namespace rq
