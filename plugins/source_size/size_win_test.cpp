// Files that their writers keep to themselves, on Windows.
#include "plugin_common/plugin_driver.h"
#include "plugin_common/win_text.h"

namespace rq::source_size {
namespace {

class SizeOnWindows : public task::PluginDriver {
  protected:
    std::string Text(const std::string& timeout_s) const {
        return "<SourceSizeTask><ID>t1</ID><StableFor_s>0</StableFor_s><Timeout_s>" + timeout_s +
               "</Timeout_s><Files><File><Path>" + PathOf("a") + "</Path></File></Files></SourceSizeTask>";
    }
};

TEST_F(SizeOnWindows, AFileThatNobodyElseMayOpenIsWaitedFor) {
    Write("a", "abc");
    HANDLE writer = ::CreateFileW(task::NativePath(PathOf("a")).c_str(), GENERIC_READ | GENERIC_WRITE, 0,
                                  nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(writer, INVALID_HANDLE_VALUE);
    EXPECT_EQ(Do(Text("0.3")), RQ_STATUS_ERROR);
    EXPECT_EQ(Error(), 0x84100010u);
    EXPECT_EQ(m_info->detailErrorCode, static_cast<std::uint32_t>(ERROR_SHARING_VIOLATION));
    m_onProgress = [&] {
        if (m_progress.size() == 5) ::CloseHandle(writer);
    };
    EXPECT_EQ(Do(Text("60")), RQ_STATUS_FINISHED) << Detail();
}

}  // namespace
}  // namespace rq::source_size
