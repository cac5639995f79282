// The engine's configuration file, in TOML. Every key stands once, in a table with its text for people;
// reading,
// --print-config and the documentation come from that table. Pure, except that ReadConfig reads the file.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "engine/settings.h"

namespace rq::engine {

// Changes what the file names. Anything in it that is not right (a key that is unknown or given twice, a
// value of another type or out of its range) is an error that begins with "FILE:LINE: "; the settings are
// then to be thrown away.
Result<void> ApplyConfig(std::string_view text, const std::string& file, EngineSettings& settings);
Result<void> ReadConfig(const std::string& file, EngineSettings& settings);

// A whole file with these settings, each key with what it means. Reading it gives the same settings.
std::string ConfigText(const EngineSettings& settings);

// Every key, as "table.key".
std::vector<std::string> ConfigKeys();

}  // namespace rq::engine
