// The running parameters against a list of their own: this file and the field table must agree on every
// field's kind, default and place.
#include "records/running_parameter.h"

#include <gtest/gtest.h>
#include <rqworker/running_parameter.h>

#include <cstddef>
#include <string>
#include <vector>

namespace rq {
namespace {

std::string Shown(std::int32_t value) {
    return std::to_string(value);
}
std::string Shown(bool flag) {
    return flag ? "flag 1" : "flag 0";
}
std::string Shown(float real) {
    return "real " + std::to_string(real);
}
std::string Shown(const std::string& text) {
    return "text \"" + text + '"';
}
std::string Shown(const std::vector<std::string>& texts) {
    std::string shown = "texts";
    for (const std::string& text : texts) shown += " \"" + text + '"';
    return shown;
}
std::string Shown(const std::vector<std::uint16_t>& ports) {
    std::string shown = "ports";
    for (const std::uint16_t port : ports) shown += ' ' + std::to_string(port);
    return shown;
}

// One line for each field, in the table's order; RQ_FIELD says which.
#define RQ_PARAM_VALUE(...) RQ_FIELD(__VA_ARGS__)
#define RQ_PARAM_FLAG(...) RQ_FIELD(__VA_ARGS__)
#define RQ_PARAM_REAL(...) RQ_FIELD(__VA_ARGS__)
#define RQ_PARAM_TEXT(...) RQ_FIELD(__VA_ARGS__)
#define RQ_PARAM_TEXTS(...) RQ_FIELD(__VA_ARGS__)
#define RQ_PARAM_PORTS(...) RQ_FIELD(__VA_ARGS__)
#define RQ_PARAM_INDEX(...) RQ_FIELD(__VA_ARGS__)

std::vector<std::string> ShownFields(const tagOVLCommunicationParam& parameter) {
    std::vector<std::string> shown;
#define RQ_FIELD(position, member, ...) shown.push_back(Shown(parameter.member));
#include "records/running_parameter_table.inc"
#undef RQ_FIELD
    return shown;
}

TEST(RunningParameter, DefaultsInDeclarationOrder) {
    const std::vector<std::string> expected = {
        "0",
        "60",
        "60",
        "25",  //
        "flag 1",
        "flag 1",  //
        "text \"\"",
        "texts",  //
        "flag 0",
        "flag 1",
        "flag 1",
        "flag 1",
        "flag 1",
        "flag 0",
        "flag 0",  //
        "real 1.000000",
        "real 1.000000",
        "real 8.000000",  //
        "flag 1",
        "flag 0",  //
        "30",
        "0",
        "5",
        "5",
        "60",
        "0",       //
        "flag 0",  //
        "10",
        "30",
        "50",         //
        "text \"\"",  //
        "flag 0",
        "flag 0",
        "flag 1",
        "flag 0",  //
        "300",
        "0",
        "0",
        "0",
        "1",
        "1",
        "0",
        "0",
        "50",
        "25",
        "1",
        "1",                    //
        "text \"MPEG2_IBP,\"",  //
        "0",
        "0",
        "0",       //
        "flag 1",  //
        "text \"\"",
        "text \"\"",  //
        "0",
        "1",
        "1800",
        "120",  //
        "1",
        "text \"http://127.0.0.1:8802\"",  //
        "text \"\"",
        "text \"\"",
        "text \"\"",
        "text \"\"",
        "text \"\"",  //
        "0",
        "texts \"127.0.0.1\"",
        "ports 8083",
        "0",  //
    };
    EXPECT_EQ(ShownFields(tagOVLCommunicationParam()), expected);
}

TEST(RunningParameter, SupervisionSettings) {
    const tagOVLCommunicationParam parameter;
    EXPECT_EQ(parameter.heartbeatInterval_s, 60);
    EXPECT_EQ(parameter.progressReportInterval_s, 5);
    EXPECT_EQ(parameter.progressPatrolTimeout_s, 60);
    EXPECT_EQ(parameter.nextServerIndex, 0);
}

TEST(RunningParameter, PositionsCountFromOne) {
    std::vector<int> positions;
#define RQ_FIELD(position, ...) positions.push_back(position);
#include "records/running_parameter_table.inc"
#undef RQ_FIELD
    for (std::size_t i = 0; i < positions.size(); ++i) EXPECT_EQ(positions[i], static_cast<int>(i) + 1);
}

// The plain record of the plug-in contract declares the same members in the same order.
TEST(RunningParameter, PlainRecordHasTheSameOrder) {
    std::size_t last = offsetof(RQRunningParameter, size);
    EXPECT_EQ(last, 0u);
#define RQ_FIELD(position, member, ...)                               \
    EXPECT_GT(offsetof(RQRunningParameter, member), last) << #member; \
    last = offsetof(RQRunningParameter, member);
#include "records/running_parameter_table.inc"
#undef RQ_FIELD
    EXPECT_GT(sizeof(RQRunningParameter), last);
}

#undef RQ_PARAM_VALUE
#undef RQ_PARAM_FLAG
#undef RQ_PARAM_REAL
#undef RQ_PARAM_TEXT
#undef RQ_PARAM_TEXTS
#undef RQ_PARAM_PORTS
#undef RQ_PARAM_INDEX

}  // namespace
}  // namespace rq
