// Task texts of transfers within a folder of the test's own. For tests.
#pragma once

#include "kit/reference_md5.h"
#include "plugin_common/plugin_driver.h"

namespace rq::transfer {

constexpr const char* kAbcMd5 = "900150983cd24fb0d6963f7d28e17f72";
constexpr const char* kEmptyMd5 = "d41d8cd98f00b204e9800998ecf8427e";
constexpr const char* kAbcSha256 = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

class TransferTest : public task::PluginDriver {
  protected:
    using Strings = std::vector<std::string>;

    std::string Item(const std::string& source, const std::string& target,
                     const std::string& md5 = {}) const {
        return ItemOf(PathOf(source), PathOf(target), md5);
    }
    static std::string ItemOf(const std::string& source, const std::string& target,
                              const std::string& md5 = {}) {
        return "<Item><Source>" + source + "</Source><Target>" + target + "</Target>" +
               (md5.empty() ? "" : "<MD5>" + md5 + "</MD5>") + "</Item>";
    }
    static std::string Text(const std::string& items, const std::string& settings = {}) {
        return "<TransferTask><ID>t1</ID>" + settings + "<Items>" + items + "</Items></TransferTask>";
    }
    static std::string Flags(const Strings& names) {
        std::string text;
        for (const std::string& name : names) text += "<" + name + ">true</" + name + ">";
        return text;
    }
    // Bytes that repeat nowhere near.
    static std::string Bytes(std::size_t size) {
        std::string bytes(size, '\0');
        std::uint32_t value = 1;
        for (char& c : bytes) {
            value = value * 1664525u + 1013904223u;
            c = static_cast<char>(value >> 24);
        }
        return bytes;
    }
    void ExpectFailure(std::uint32_t code, const std::string& words) const {
        EXPECT_EQ(Status(), RQ_STATUS_ERROR);
        EXPECT_EQ(Error(), code) << Detail();
        EXPECT_NE(Detail().find(words), std::string::npos) << Detail();
    }
    // Another file system than that of m_dir; empty when the machine has none.
    static std::string OtherFileSystem();
    std::filesystem::path NewFolderIn(const std::string& other) const {
        const std::filesystem::path folder =
            PathFromUtf8(other) /
            ("rq transfer " + task::HexOf(reinterpret_cast<const std::uint8_t*>(&m_info), 1) +
             std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()));
        std::filesystem::create_directory(folder);
        return folder;
    }
};

constexpr const char* kMove = "<Mode>move</Mode>";

}  // namespace rq::transfer
