// How many columns a text takes on a terminal: East Asian wide characters take two, marks that join the
// character before them none. Pure; any thread. Text is UTF-8.
#pragma once

#include <string>
#include <string_view>

namespace rq::ctl {

unsigned DisplayWidth(std::string_view utf8);

// The beginning that fits into so many columns, never half a character, with blanks up to that width.
std::string FitColumns(std::string_view utf8, unsigned columns);

}  // namespace rq::ctl
