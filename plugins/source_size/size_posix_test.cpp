// A report that the disk does not take, on Linux.
#include "plugin_common/plugin_driver.h"
#include "plugin_common/small_files.h"

namespace rq::source_size {
namespace {

using SizeOnLinux = task::PluginDriver;

TEST_F(SizeOnLinux, AReportThatCannotBeWrittenIsSaid) {
    Write("a", "abc");
    const std::string file = "<File><Path>" + PathOf("a") + "</Path></File>";
    std::string text = "<SourceSizeTask><ID>t1</ID><StableFor_s>0</StableFor_s><Files>";
    for (int i = 0; i < 10'000; ++i) text += file;
    text += "</Files></SourceSizeTask>";
    {
        const task::SmallFiles limit(256 << 10);
        EXPECT_EQ(Do(text), RQ_STATUS_ERROR);
    }
    EXPECT_EQ(Error(), 0x84100033u);
    EXPECT_EQ(m_info->detailErrorCode, static_cast<std::uint32_t>(EFBIG));
    EXPECT_NE(Detail().find(": the report cannot be written: File too large; "), std::string::npos)
        << Detail();
    EXPECT_EQ(Further().rfind("10000 of 10000 files complete; report: ", 0), 0u) << Further();
    EXPECT_NE(Further().find(".txt\n" + Detail()), std::string::npos) << Further();
    // What a cancelled task could not write does not make it fail.
    m_onProgress = [&] { RQStore32(&m_stop, RQ_STOP_CANCEL); };
    {
        const task::SmallFiles limit(256 << 10);
        EXPECT_EQ(Do(text), RQ_STATUS_CANCELLED);
    }
    RQStore32(&m_stop, RQ_STOP_NONE);
}

}  // namespace
}  // namespace rq::source_size
