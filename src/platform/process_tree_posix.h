// Inside this room's Linux sources only: how the processes of a tree are known.
#pragma once

namespace rq::platform {

// In their environment, followed by the tree's name.
inline constexpr const char* kTreeVariable = "RQ_PROCESS_TREE=";

}  // namespace rq::platform
