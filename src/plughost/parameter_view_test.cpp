#include "plughost/parameter_view.h"

#include <gtest/gtest.h>

#include <memory>

#include "plughost/plugin_text.h"

namespace rq {
namespace {

TEST(ParameterView, ShowsTheDefaults) {
    const ParameterView view{tagOVLCommunicationParam()};
    const RQRunningParameter& plain = *view.Plain();
    EXPECT_EQ(plain.size, sizeof(RQRunningParameter));
    EXPECT_EQ(plain.heartbeatInterval_s, 60);
    EXPECT_EQ(plain.flag05, 1);
    EXPECT_EQ(plain.flag09, 0);
    EXPECT_EQ(plain.real18, 8.0f);
    EXPECT_EQ(PluginTextView(plain.text07), "");
    EXPECT_EQ(PluginTextView(plain.text48), "MPEG2_IBP,");
    EXPECT_EQ(plain.texts08.n, 0u);
    ASSERT_EQ(plain.serverAddresses.n, 1u);
    EXPECT_EQ(PluginTextView(plain.serverAddresses.items[0]), "127.0.0.1");
    ASSERT_EQ(plain.serverPorts.n, 1u);
    EXPECT_EQ(plain.serverPorts.items[0], 8083);
    EXPECT_EQ(plain.nextServerIndex, 0);
}

TEST(ParameterView, OwnsWhatItShows) {
    auto parameters = std::make_unique<tagOVLCommunicationParam>();
    parameters->value01 = -7;
    parameters->flag06 = false;
    parameters->text31 = "文本";
    parameters->texts08 = {"one", "", "three"};
    parameters->serverAddresses = {"10.0.0.1", "10.0.0.2"};
    parameters->serverPorts = {1, 65535};
    const ParameterView view(*parameters);
    parameters.reset();

    const RQRunningParameter& plain = *view.Plain();
    EXPECT_EQ(plain.value01, -7);
    EXPECT_EQ(plain.flag06, 0);
    EXPECT_EQ(PluginTextView(plain.text31), "文本");
    ASSERT_EQ(plain.texts08.n, 3u);
    EXPECT_EQ(PluginTextView(plain.texts08.items[0]), "one");
    EXPECT_EQ(PluginTextView(plain.texts08.items[1]), "");
    EXPECT_EQ(PluginTextView(plain.texts08.items[2]), "three");
    ASSERT_EQ(plain.serverAddresses.n, 2u);
    EXPECT_EQ(PluginTextView(plain.serverAddresses.items[1]), "10.0.0.2");
    ASSERT_EQ(plain.serverPorts.n, 2u);
    EXPECT_EQ(plain.serverPorts.items[1], 65535);
}

// Every field is set: a record in which each differs from its default shows none of the defaults.
TEST(ParameterView, SetsEveryField) {
    tagOVLCommunicationParam parameters;
    const ParameterView before(parameters);
#define RQ_PARAM_VALUE(position, member, ...) parameters.member += 1000;
#define RQ_PARAM_FLAG(position, member, ...) parameters.member = !parameters.member;
#define RQ_PARAM_REAL(position, member, ...) parameters.member += 1000;
#define RQ_PARAM_TEXT(position, member, ...) parameters.member += " changed";
#define RQ_PARAM_TEXTS(position, member, ...) parameters.member.push_back("more");
#define RQ_PARAM_PORTS(position, member, ...) parameters.member.push_back(1);
#define RQ_PARAM_INDEX(position, member, ...) parameters.member += 1000;
#include "records/running_parameter_table.inc"
#undef RQ_PARAM_VALUE
#undef RQ_PARAM_FLAG
#undef RQ_PARAM_REAL
#undef RQ_PARAM_TEXT
#undef RQ_PARAM_TEXTS
#undef RQ_PARAM_PORTS
#undef RQ_PARAM_INDEX
    const ParameterView after(parameters);
#define RQ_PARAM_VALUE(position, member, ...) EXPECT_EQ(after.Plain()->member, before.Plain()->member + 1000);
#define RQ_PARAM_FLAG(position, member, ...) \
    EXPECT_NE(after.Plain()->member, before.Plain()->member) << #member;
#define RQ_PARAM_REAL(position, member, ...) EXPECT_EQ(after.Plain()->member, before.Plain()->member + 1000);
#define RQ_PARAM_TEXT(position, member, ...) \
    EXPECT_EQ(after.Plain()->member.n, before.Plain()->member.n + 8) << #member;
#define RQ_PARAM_TEXTS(position, member, ...) \
    EXPECT_EQ(after.Plain()->member.n, before.Plain()->member.n + 1) << #member;
#define RQ_PARAM_PORTS(position, member, ...) \
    EXPECT_EQ(after.Plain()->member.n, before.Plain()->member.n + 1) << #member;
#define RQ_PARAM_INDEX(position, member, ...) EXPECT_EQ(after.Plain()->member, before.Plain()->member + 1000);
#include "records/running_parameter_table.inc"
}

}  // namespace
}  // namespace rq
