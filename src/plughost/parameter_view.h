// The running parameters in the plain C form of the plug-in contract. Owns a copy of the record and the
// arrays that the plain form points to; the pointer that Plain() gives is good as long as the view. Not
// copied, not moved: the plain form points into it. Made by one thread; then any thread may read.
#pragma once

#include <rqworker/running_parameter.h>

#include <deque>
#include <vector>

#include "records/running_parameter.h"

namespace rq {

class ParameterView {
  public:
    explicit ParameterView(tagOVLCommunicationParam parameters);
    ParameterView(const ParameterView&) = delete;
    ParameterView& operator=(const ParameterView&) = delete;

    const RQRunningParameter* Plain() const { return &m_plain; }

  private:
    void Set(std::int32_t& plain, std::int32_t value) { plain = value; }
    void Set(std::uint8_t& plain, bool value) { plain = value ? 1 : 0; }
    void Set(float& plain, float value) { plain = value; }
    void Set(RQText& plain, const std::string& value) { plain = {value.data(), value.size()}; }
    void Set(RQTextList& plain, const std::vector<std::string>& value);
    void Set(RQPortList& plain, const std::vector<std::uint16_t>& value) {
        plain = {value.data(), value.size()};
    }

    tagOVLCommunicationParam m_parameters;
    std::deque<std::vector<RQText>> m_lists;  // one a list of texts; a deque leaves them where they are
    RQRunningParameter m_plain{};
};

}  // namespace rq
