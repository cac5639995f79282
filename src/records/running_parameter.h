// tagOVLCommunicationParam: the running parameters of a worker, read from "actor.xml" and handed to the
// plug-in. Copied freely; whoever holds a copy owns it. Texts are UTF-8. The fields stand in
// running_parameter_table.inc.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace rq {

struct tagOVLCommunicationParam {
#define RQ_PARAM_VALUE(position, member, element, def, unit, meaning) std::int32_t member = def;
#define RQ_PARAM_FLAG(position, member, element, def, unit, meaning) bool member = (def) != 0;
#define RQ_PARAM_REAL(position, member, element, def, unit, meaning) float member = def;
#define RQ_PARAM_TEXT(position, member, element, def, unit, meaning) std::string member = def;
#define RQ_PARAM_TEXTS(position, member, element, def, unit, meaning) \
    std::vector<std::string> member = DefaultTexts(def);
#define RQ_PARAM_PORTS(position, member, element, def, unit, meaning) \
    std::vector<std::uint16_t> member = {def};
#define RQ_PARAM_INDEX(position, member, element, def, unit, meaning) std::int32_t member = def;
#include "records/running_parameter_table.inc"
#undef RQ_PARAM_VALUE
#undef RQ_PARAM_FLAG
#undef RQ_PARAM_REAL
#undef RQ_PARAM_TEXT
#undef RQ_PARAM_TEXTS
#undef RQ_PARAM_PORTS
#undef RQ_PARAM_INDEX

    bool operator==(const tagOVLCommunicationParam&) const = default;

  private:
    // An empty default is an empty list, any other a list of one.
    static std::vector<std::string> DefaultTexts(const char* text) {
        return *text == '\0' ? std::vector<std::string>{} : std::vector<std::string>{text};
    }
};

}  // namespace rq
