// The typed values of a task text, and those that only a transcode has. Pure; any thread.
#pragma once

#include "plugin_common/typed_fields.h"

namespace rq::transcode {

struct Rational;

class TypedFields : public task::TypedFields {
  public:
    using task::TypedFields::TypedFields;

    std::optional<int> Whole(std::string_view name, int least, int most);
    // "25", "23.976", "30000/1001".
    std::optional<Rational> FrameRate(std::string_view name);
    // The absolute path of a file, taken as it stands.
    std::string Path() { return FilePath("Path"); }
};

}  // namespace rq::transcode
