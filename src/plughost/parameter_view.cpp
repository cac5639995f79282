#include "plughost/parameter_view.h"

#include <utility>

namespace rq {

ParameterView::ParameterView(tagOVLCommunicationParam parameters) : m_parameters(std::move(parameters)) {
    m_plain.size = sizeof m_plain;
#define RQ_SET(position, member, ...) Set(m_plain.member, m_parameters.member);
#define RQ_PARAM_VALUE(...) RQ_SET(__VA_ARGS__)
#define RQ_PARAM_FLAG(...) RQ_SET(__VA_ARGS__)
#define RQ_PARAM_REAL(...) RQ_SET(__VA_ARGS__)
#define RQ_PARAM_TEXT(...) RQ_SET(__VA_ARGS__)
#define RQ_PARAM_TEXTS(...) RQ_SET(__VA_ARGS__)
#define RQ_PARAM_PORTS(...) RQ_SET(__VA_ARGS__)
#define RQ_PARAM_INDEX(...) RQ_SET(__VA_ARGS__)
#include "records/running_parameter_table.inc"
#undef RQ_PARAM_VALUE
#undef RQ_PARAM_FLAG
#undef RQ_PARAM_REAL
#undef RQ_PARAM_TEXT
#undef RQ_PARAM_TEXTS
#undef RQ_PARAM_PORTS
#undef RQ_PARAM_INDEX
#undef RQ_SET
}

void ParameterView::Set(RQTextList& plain, const std::vector<std::string>& value) {
    std::vector<RQText>& list = m_lists.emplace_back();
    for (const std::string& text : value) list.push_back({text.data(), text.size()});
    plain = {list.data(), list.size()};
}

}  // namespace rq
