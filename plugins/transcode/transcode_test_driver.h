// Drives the transcode plug-in through its exported functions, as the worker does, and keeps what it says;
// makes clips with the ffmpeg command and looks at results with ffprobe. For tests.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "base/paths.h"
#include "kit/child.h"
#include "kit/temp_dir.h"
#include "plugin_common/plugin_driver.h"
#include "rqworker/plugin.hpp"

namespace rq::transcode {

// The words of a command as a shell takes them apart: blanks part them, quotes of either kind hold them
// together.
inline std::vector<std::string> WordsOf(const std::string& command) {
    std::vector<std::string> words;
    char quote = '\0';
    bool inside = false;
    for (const char c : command) {
        if (quote == '\0' && c == ' ') {
            inside = false;
            continue;
        }
        if (!inside) words.emplace_back();
        inside = true;
        if (c == quote) {
            quote = '\0';
        } else if (quote == '\0' && (c == '\'' || c == '"')) {
            quote = c;
        } else {
            words.back() += c;
        }
    }
    return words;
}

// What ffmpeg or ffprobe prints, byte for byte; with "2>&1" at the end, what it says on standard error, too.
// A test failure when it fails.
inline std::string OutputOf(const std::string& command, const std::filesystem::path& folder = {}) {
    std::vector<std::string> words = WordsOf(command);
    const std::string program = words.front() == "ffprobe" ? RQ_FFPROBE_COMMAND : RQ_FFMPEG_COMMAND;
    words.erase(words.begin());
    const bool withErrors = words.back() == "2>&1";
    if (withErrors) words.pop_back();
    kit::Child::Options options;
    options.directory = folder;
    kit::Child child(PathFromUtf8(program), words, options);
    EXPECT_EQ(child.ExitCode(std::chrono::minutes(4)), 0) << command << "\n" << child.Errors();
    // ffprobe writes text; what ffmpeg writes may be pictures.
    const bool isText = program == RQ_FFPROBE_COMMAND;
    return (isText ? child.Output() : kit::ReadBytes(child.OutputFile())) +
           (withErrors ? child.Errors() : "");
}

class TranscodeDriver : public task::PluginDriver {
  protected:
    TranscodeDriver() {
        std::filesystem::create_directory(m_dir.Path() / "out");
        m_onSignOfLife = [this] {
            if (m_onProgress) m_onProgress();
        };
    }

    // The target of most tests, alone in its folder.
    std::string Target(const std::string& name) const { return m_dir.Utf8("out/" + name); }
    static std::string ReadWhole(const std::string& path) { return kit::ReadBytes(PathFromUtf8(path)); }
    static std::uintmax_t SizeOf(const std::string& path) {
        return std::filesystem::file_size(PathFromUtf8(path));
    }
    static void Resize(const std::string& path, std::uintmax_t size_bytes) {
        std::filesystem::resize_file(PathFromUtf8(path), size_bytes);
    }
    static void Remove(const std::string& path) { std::filesystem::remove(PathFromUtf8(path)); }
    // Every name in the targets' folder, hidden ones too.
    std::vector<std::string> Made() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(m_dir.Path() / "out"))
            names.push_back(Utf8FromPath(entry.path().filename()));
        return names;
    }

    // A clip made by the ffmpeg command from these arguments.
    std::string Make(const std::string& name, const std::string& arguments) const {
        std::string path = PathOf(name);
        OutputOf("ffmpeg -nostdin -v error -y " + arguments + " '" + path + "' 2>&1", m_dir.Path());
        return path;
    }
    // Moving picture and tone, `seconds` long, 25 fps.
    std::string MakeClip(const std::string& name, const std::string& seconds = "2",
                         const std::string& codecs = "-c:v libx264 -preset ultrafast -g 25 -c:a aac") const {
        return Make(name, "-f lavfi -i testsrc2=s=128x72:r=25:d=" + seconds +
                              " -f lavfi -i sine=sample_rate=48000:d=" + seconds + " " + codecs);
    }

    static std::string TaskText(const std::string& source, const std::string& target,
                                const std::string& more = {}, const std::string& inSource = {}) {
        const std::string container = target.substr(target.rfind('.') + 1);
        return "<TranscodeTask><ID>t 1</ID><Source><Path>" + source + "</Path>" + inSource +
               "</Source><Target><Path>" + target + "</Path><Container>" + container + "</Container>" + more +
               "</Target></TranscodeTask>";
    }
    // <Video> with fast settings and whatever else.
    static std::string Video(const std::string& codec, const std::string& more = {}) {
        const bool isH264 = codec == "h264" && more.find("<Preset>") == std::string::npos;
        return "<Video><Codec>" + codec + "</Codec>" + (isH264 ? "<Preset>ultrafast</Preset>" : "") + more +
               "</Video>";
    }
    static std::string Audio(const std::string& codec, const std::string& more = {}) {
        return "<Audio><Codec>" + codec + "</Codec>" + more + "</Audio>";
    }

    std::uint32_t Do(const std::string& text) {
        if (Analyse(text) != 0) {
            ADD_FAILURE() << LastLog();
            return 99;
        }
        Perform();
        return RQLoad32(&m_info->status);
    }
    // Finished, published once, nothing else left in the folder.
    void ExpectDone(const std::string& text) {
        EXPECT_EQ(Do(text), RQ_STATUS_FINISHED) << plugin::View(m_info->detailErrorText);
        EXPECT_EQ(m_info->errorCode, 0);
        EXPECT_EQ(Made().size(), 1u);
        EXPECT_EQ(Count(Data().outputs), 1u);
        EXPECT_EQ(Count(Data().verifications), 1u);
    }
    void ExpectFailure(const std::string& text, std::uint32_t errorCode, std::uint32_t detail) {
        EXPECT_EQ(Do(text), RQ_STATUS_ERROR);
        EXPECT_EQ(static_cast<std::uint32_t>(m_info->errorCode), errorCode) << Detail();
        EXPECT_EQ(m_info->detailErrorCode, detail) << Detail();
        EXPECT_FALSE(Detail().empty());
        EXPECT_EQ(Count(Data().outputs), 0u);
        EXPECT_EQ(Made(), std::vector<std::string>{});
        EXPECT_EQ(LastLog(), "4 transcode: " + Detail());
    }
    std::string LastLog() {
        const std::lock_guard<std::mutex> lock(m_logMutex);
        return m_log.empty() ? "" : m_log.back();
    }

    const RQTranscodeData& Data() const { return *static_cast<const RQTranscodeData*>(m_info->typeData); }
    static std::uint32_t Count(const RQResultList* list) { return RQLoad32(&list->count); }
    const RQTranscodeOutput& Output() const {
        EXPECT_EQ(Count(Data().outputs), 1u);
        return *static_cast<const RQTranscodeOutput*>(Data().outputs->items[0]);
    }

    // What ffprobe says: "streams.stream.0.codec_name" and so on; packets counted.
    static std::map<std::string, std::string> Probe(const std::string& path) {
        std::map<std::string, std::string> facts;
        std::istringstream lines(OutputOf(
            "ffprobe -v error -count_packets -show_streams -show_format -of flat '" + path + "' 2>&1"));
        for (std::string line; std::getline(lines, line);) {
            const std::size_t equals = line.find('=');
            if (equals == std::string::npos) continue;
            std::string value = line.substr(equals + 1);
            value.erase(std::remove(value.begin(), value.end(), '"'), value.end());
            facts[line.substr(0, equals)] = value;
        }
        return facts;
    }
    // The decoded pictures of the file.
    static std::string PictureMd5(const std::string& path) {
        return OutputOf("ffmpeg -nostdin -v error -i '" + path + "' -map 0:v -f md5 - ");
    }
    // Every picture of the file, as its mean luminance (16 is black, 235 white).
    static std::vector<int> Greys(const std::string& path) {
        const std::string bytes = OutputOf("ffmpeg -nostdin -v error -i '" + path +
                                           "' -vsync passthrough -vf scale=1:1:flags=area,format=gray "
                                           "-f rawvideo -map 0:v - ");
        std::vector<int> greys;
        for (const char byte : bytes)
            greys.push_back((static_cast<unsigned char>(byte) * 219 + 127) / 255 + 16);
        return greys;
    }
    // That another decoder finds nothing wrong with the file.
    static void ExpectPlayable(const std::string& path) {
        EXPECT_EQ(OutputOf("ffmpeg -nostdin -v error -xerror -i '" + path + "' -f null - 2>&1"), "");
    }

    // Never back, never over the total, and at the end there.
    void ExpectWholeProgress() const {
        ASSERT_FALSE(m_progress.empty());
        double last = 0;
        std::int64_t lastDone = 0;
        for (const task::ProgressCall& call : m_progress) {
            EXPECT_GE(call.done, lastDone);
            EXPECT_LE(call.done, call.total);
            const double percent = static_cast<double>(call.done) / static_cast<double>(call.total);
            EXPECT_GE(percent, last);
            last = percent;
            lastDone = call.done;
        }
        EXPECT_EQ(last, 1.0);
    }
};

}  // namespace rq::transcode
