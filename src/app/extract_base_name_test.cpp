#include "app/extract_base_name.h"

#include <gtest/gtest.h>

namespace rq {
namespace {

TEST(ExtractBaseName, TheTextUpToTheFirstDot) {
    EXPECT_EQ(ExtractBaseName(L"D:\\jobs\\task42.part1.xml"), L"task42");
    EXPECT_EQ(ExtractBaseName(L"/jobs/task42.xml"), L"task42");
    EXPECT_EQ(ExtractBaseName(L"jobs/任务 1.xml"), L"任务 1");
    EXPECT_EQ(ExtractBaseName(L"/a.b/task.xml"), L"task");
}

TEST(ExtractBaseName, NothingWithoutASeparatorBeforeTheName) {
    EXPECT_EQ(ExtractBaseName(L"task42.xml"), L"");
    EXPECT_EQ(ExtractBaseName(L"/task42.xml"), L"");
    EXPECT_EQ(ExtractBaseName(L"\\task42.xml"), L"");
    EXPECT_EQ(ExtractBaseName(L""), L"");
}

TEST(ExtractBaseName, NothingWithoutADotInsideTheName) {
    EXPECT_EQ(ExtractBaseName(L"/jobs/task42"), L"");
    EXPECT_EQ(ExtractBaseName(L"/jobs/.hidden"), L"");
    EXPECT_EQ(ExtractBaseName(L"/jobs/"), L"");
    EXPECT_EQ(ExtractBaseName(L"/jobs.d/task42"), L"");
}

}  // namespace
}  // namespace rq
