// `rqctl bundle`: everything about a task in one archive, for somebody who has to find out what went wrong.
// Secrets are taken out of every text. The files are read here, so rqctl must run as the engine's user on its
// machine.
#pragma once

#include <string>

#include "ctl/engine_access.h"

namespace rq::ctl {

// `file` is made; empty: "<id>-bundle.tar.gz" in the current folder.
Outcome<int> Bundle(EngineAccess& engine, const std::string& id, const std::string& file, bool asJson);

}  // namespace rq::ctl
