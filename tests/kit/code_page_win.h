// Windows only: what texts without an encoding of their own are taken for.
#pragma once

namespace rq::kit {

// The ANSI code page of this process.
unsigned AnsiCodePage();

}  // namespace rq::kit
