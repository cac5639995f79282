#include "platform/library.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "base/paths.h"
#include "kit/files.h"
#include "kit/os.h"
#include "kit/temp_dir.h"
#include "platform/needed_libraries.h"

namespace rq::platform {
namespace {

namespace fs = std::filesystem;

// A library stays loaded, and the linker remembers it by name: each test that depends on what is loaded runs
// in a process of its own, which ctest does.
class Library : public ::testing::Test {
  protected:
    void Copy(const std::string& name, const fs::path& to) {
        fs::create_directories(to);
        fs::copy_file(fs::path(RQ_FIXTURES) / name, to / name);
    }
    static int Answer(void* library) {
        auto* function = reinterpret_cast<int (*)()>(FindSymbol(library, "NeedingAnswer"));
        return function == nullptr ? -1 : function();
    }

    kit::TempDir m_dir;
    const std::string m_needed = SharedLibraryFileName("rq_needed_fixture");
    const std::string m_needing = SharedLibraryFileName("rq_needing_fixture");
};

TEST_F(Library, TellsWhatALibraryNeeds) {
    const auto needed = NeededLibraries(std::string(RQ_FIXTURES) + "/" + m_needing);
    EXPECT_NE(std::find(needed.begin(), needed.end(), m_needed), needed.end());
    m_dir.Write("text", "this is no library");
    EXPECT_TRUE(NeededLibraries(m_dir.Utf8("text")).empty());
    EXPECT_TRUE(NeededLibraries("/no/such/file").empty());
    // Cut off in the middle: nothing is read outside the file.
    const auto bytes = kit::ReadBytes(fs::path(RQ_FIXTURES) / m_needing);
    for (std::size_t size : {0u, 4u, 40u, 64u, 200u, 1000u}) {
        m_dir.Write("cut.so", bytes.substr(0, size));
        EXPECT_TRUE(NeededLibraries(m_dir.Utf8("cut.so")).empty()) << size;
    }
}

TEST_F(Library, PlainDoesNotLookBesideTheLibraryItself) {
    Copy(m_needing, m_dir.Path() / "p");
    Copy(m_needed, m_dir.Path() / "p");
    const kit::ScopedDirectory elsewhere(m_dir.Path());
    OsError error;
    EXPECT_EQ(LoadPlainLibrary(m_dir.Utf8("p/" + m_needing), &error), nullptr);
    EXPECT_NE(error.message.find(m_needed), std::string::npos) << error.message;
}

TEST_F(Library, OfAnotherKindOfMachineIsToldAsSuch) {
    std::string bytes = kit::ReadBytes(fs::path(RQ_FIXTURES) / m_needed);
    if (!bytes.starts_with("\x7f"
                           "ELF"))
        GTEST_SKIP() << "the system itself says so of other libraries than ELF ones";
    bytes[18] = '\xB7';  // the machine: 64-bit ARM
    m_dir.Write("other.so", bytes);
    OsError error;
    EXPECT_EQ(LoadLibraryAltered(m_dir.Utf8("other.so"), &error), nullptr);
    EXPECT_NE(error.message.find("built for another kind of machine"), std::string::npos) << error.message;
    EXPECT_EQ(LoadLibraryAltered(m_dir.Utf8("missing.so"), &error), nullptr);
    EXPECT_EQ(error.message.find("kind of machine"), std::string::npos) << error.message;
}

TEST_F(Library, ADamagedNeededLibraryIsNamed) {
    Copy(m_needing, m_dir.Path());
    m_dir.Write(m_needed, "this is no library");
    const kit::ScopedDirectory here(m_dir.Path());
    OsError error;
    EXPECT_EQ(LoadPlainLibrary(m_dir.Utf8(m_needing), &error), nullptr);
    EXPECT_NE(
        error.message.find(Utf8FromPath(fs::path("." / PathFromUtf8(m_needed)).make_preferred()).substr(1)),
        std::string::npos)
        << error.message;
}

TEST_F(Library, PlainFindsANeededLibraryInTheCurrentDirectory) {
    const fs::path folder = m_dir.Path() / PathFromUtf8("插件 1");
    Copy(m_needing, folder);
    Copy(m_needed, folder);
    const kit::ScopedDirectory here(folder);
    OsError error;
    void* library = LoadPlainLibrary(m_dir.Utf8("插件 1/" + m_needing), &error);
    ASSERT_NE(library, nullptr) << error.message;
    EXPECT_EQ(Answer(library), 43);
    EXPECT_EQ(FindSymbol(library, "NoSuchName"), nullptr);
}

TEST_F(Library, AlteredLooksBesideTheLibraryItself) {
    Copy(m_needing, m_dir.Path() / "p");
    Copy(m_needed, m_dir.Path() / "p");
    const kit::ScopedDirectory elsewhere(m_dir.Path());
    OsError error;
    void* library = LoadLibraryAltered(m_dir.Utf8("p/" + m_needing), &error);
    ASSERT_NE(library, nullptr) << error.message;
    EXPECT_EQ(Answer(library), 43);
}

TEST_F(Library, ABareNameIsFoundInTheCurrentDirectoryAtLast) {
    Copy(m_needed, m_dir.Path());
    const kit::ScopedDirectory here(m_dir.Path());
    EXPECT_NE(LoadPlainLibrary(m_needed), nullptr);
}

TEST_F(Library, SystemLibrariesByBareName) {
    EXPECT_NE(LoadPlainLibrary(kit::SystemLibraryName()), nullptr);
}

TEST_F(Library, WhatIsMissingOrDamagedIsTold) {
    OsError error;
    EXPECT_EQ(LoadPlainLibrary(m_dir.Utf8("missing.so"), &error), nullptr);
    EXPECT_NE(error.message.find("missing.so"), std::string::npos) << error.message;
    m_dir.Write("text.so", "this is no library");
    EXPECT_EQ(LoadPlainLibrary(m_dir.Utf8("text.so"), &error), nullptr);
    EXPECT_NE(error.message.find("text.so"), std::string::npos) << error.message;
    EXPECT_EQ(LoadLibraryAltered("no_such_library_at_all.so", &error), nullptr);
    EXPECT_NE(error.message.find("no_such_library_at_all.so"), std::string::npos) << error.message;
}

}  // namespace
}  // namespace rq::platform
