// What is at a file's path and is none.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "kit/temp_dir.h"
#include "util/file_text.h"
#include "util/log_capture.h"
#include "util/utility.h"

namespace rq {
namespace {

TEST(ReadFileToString, APipeOrADeviceIsNotRead) {
    const kit::TempDir folder;
    const std::string pipe = folder.Utf8("pipe");
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    for (const std::string& path : {pipe, std::string("/dev/zero")}) {
        std::wstring text = L"kept";
        const LogCapture log;
        KWOVL_UTILITY::OVLReadFileToString(path, text);
        EXPECT_EQ(text, L"kept");
        ASSERT_EQ(log.Lines().size(), 1u);
        EXPECT_EQ(log.Lines()[0].text, "The file \"" + path +
                                           "\" is not used: it is a pipe or a device. Give the path of a "
                                           "text file.");
    }
}

}  // namespace
}  // namespace rq
