// The examples in transcripts/*.hex are what the codec writes, are read back by it, and stand in the page;
// the page quotes the whole schema.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

#include "link/codec.h"
#include "link/frame.h"

namespace rq::link {
namespace {

const std::string kGuid = "5b0a3c9e-1d2f-4a6b-8c7d-9e0f11223344";
const std::string kEmptySum = "d41d8cd98f00b204e9800998ecf8427e";
const std::string kFile = "/data/样 片.mxf";
const std::string kNoError = "KWR_OVL_ERROR_0";

std::string ReadAll(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file.is_open()) << path;
    return {std::istreambuf_iterator<char>(file), {}};
}

// The hexadecimal lines of an example, without the comment.
std::string HexOf(const std::string& text) {
    std::istringstream lines(text);
    std::string hex;
    for (std::string line; std::getline(lines, line);)
        if (!line.starts_with("#")) hex += line + "\n";
    return hex;
}

std::string BytesOf(const std::string& hex) {
    std::istringstream words(hex);
    std::string bytes;
    for (std::string word; words >> word;) bytes.push_back(static_cast<char>(std::stoi(word, nullptr, 16)));
    return bytes;
}

std::string Worker(std::uint64_t seq, std::uint64_t ack, std::uint32_t id, const WorkerRecord& record) {
    return *EncodeFrame({seq, ack, id, *EncodeWorkerRecord(id, record)});
}

std::string Engine(std::uint64_t seq, std::uint64_t ack, std::uint32_t id, const Order& order) {
    return *EncodeFrame({seq, ack, id, *EncodeOrder(id, order)});
}

std::string Control(std::uint64_t ack, std::uint32_t id, std::string body = {}) {
    return *EncodeFrame({0, ack, id, std::move(body)});
}

EngineStateMessage State(const TaskStatusEntry& entry) {
    return {4009, "state", "Worker", "Lite/Agent", {entry}};
}

EngineStateMessage Finished() {
    auto result = std::make_shared<stMD5TaskResult>();
    result->files.push_back({1, kFile, "", "", "", kNotCompared, kEmptySum});
    return State({"T-1", "", "", 3, kTaskFinished, 0, "", 0, kNoError, "", result});
}

EngineStateMessage VerifyFailed() {
    auto result = std::make_shared<stMD5TaskResult>();
    result->files.push_back({0, kFile, "", kEmptySum, "900150983cd24fb0d6963f7d28e17f72", kDifferent, ""});
    return State(
        {"T-1", "", "", 4, kTaskError, 0x80000001u, "detail", 6, "Task Not Response !", "further", result});
}

TaskCommand Cancel() {
    TaskCommand command;
    for (std::size_t i = 0; i < command.uuid.size(); ++i)
        command.uuid[i] = static_cast<std::uint8_t>(i * 0x11);
    command.taskIds = {"T-1"};
    return command;
}

// What each example must be, made with the codec.
std::map<std::string, std::string> Expected() {
    const std::string cancelledGbk = "\xC8\xCE\xCE\xF1\xD2\xD1\xC8\xA1\xCF\xFB";
    return {
        {"01_hello", Control(0, kHelloId, EncodeHello({1, "s3cret", "17", 4321, "1.13.0", 0, 0}))},
        {"02_welcome", Control(0, kWelcomeId, EncodeWelcome({1, 7, 0, 15'000, 60'000, {}}))},
        {"03_task_notice", Worker(1, 0, 4001, TaskNotice{"1.0", kGuid, "T-1"})},
        {"04_ack_1", Control(1, kAckId)},
        {"05_state_running",
         Worker(2, 0, 4009, State({"T-1", "", "", 3, kTaskRunning, 0, "", 0, kNoError, "", nullptr}))},
        {"06_progress", Worker(3, 0, 4008,
                               EngineProgressMessage{
                                   4009, "process", "Worker", "Lite/Agent", {{"T-1", "", "", 50, 12.5f}}})},
        {"07_heartbeat", Worker(4, 0, 4000, HeartbeatRecord{"1.0", kGuid})},
        {"08_state_final", Worker(5, 0, 4009, Finished())},
        {"09_ack_5", Control(5, kAckId)},
        {"10_destroy", Engine(1, 5, 4014, DestroyOrder{})},
        {"11_ack_destroy", Control(1, kAckId)},
        {"12_bye", Control(1, kByeId)},
        {"20_cancel", Engine(1, 2, 4002, Cancel())},
        {"21_cancel_reply", Worker(3, 0, 4003, TaskCommandReply{"1.0", kGuid, "T-1", "0", cancelledGbk})},
        {"22_add", Engine(2, 3, 4017, TaskTextOrder{"<Task><File>a</File></Task>", 0})},
        {"23_ping", Control(3, kPingId)},
        {"24_ack_2", Control(2, kAckId)},
        {"25_refuse", Control(0, kRefuseId, EncodeRefuse({kRefuseToken, "wrong token"}))},
        {"26_verify_failed", Worker(6, 2, 4009, VerifyFailed())},
    };
}

TEST(Transcripts, EveryFileIsWhatTheCodecWrites) {
    std::map<std::string, std::string> expected = Expected();
    for (const auto& entry : std::filesystem::directory_iterator(RQ_TRANSCRIPTS)) {
        const std::string name = entry.path().stem().string();
        ASSERT_TRUE(expected.contains(name)) << name;
        EXPECT_EQ(BytesOf(HexOf(ReadAll(entry.path()))), expected[name]) << name;
        expected.erase(name);
    }
    for (const auto& [name, bytes] : expected) ADD_FAILURE() << "no file for " << name;
}

TEST(Transcripts, EveryFileIsOneWholeFrameWhoseBodyDecodes) {
    for (const auto& entry : std::filesystem::directory_iterator(RQ_TRANSCRIPTS)) {
        FrameReader reader;
        reader.Feed(BytesOf(HexOf(ReadAll(entry.path()))));
        Frame frame;
        ASSERT_EQ(reader.Next(&frame), FrameReader::Status::Ready) << entry.path();
        EXPECT_EQ(reader.Buffered(), 0u);
        if (IsWorkerRecordId(frame.id)) {
            EXPECT_TRUE(DecodeWorkerRecord(frame.id, frame.body)) << entry.path();
        } else if (IsOrderId(frame.id)) {
            EXPECT_TRUE(DecodeOrder(frame.id, frame.body)) << entry.path();
        } else {
            EXPECT_TRUE(frame.id >= kHelloId && frame.id <= kByeId) << entry.path();
        }
    }
}

TEST(Transcripts, ThePageQuotesEachOfThemAndTheSchema) {
    const std::string page = ReadAll(RQ_LINK_PAGE);
    for (const auto& entry : std::filesystem::directory_iterator(RQ_TRANSCRIPTS)) {
        const std::string text = ReadAll(entry.path());
        const std::string name = "`" + entry.path().stem().string() + "`";
        const std::size_t heading = page.find(name);
        ASSERT_NE(heading, std::string::npos) << name;
        const std::size_t block = page.find("```hex\n", heading);
        ASSERT_NE(block, std::string::npos) << name;
        const std::string hex = HexOf(text);
        EXPECT_EQ(page.substr(block + 7, hex.size() + 3), hex + "```") << name;
    }
    EXPECT_NE(page.find("```proto\n" + ReadAll(RQ_LINK_SCHEMA) + "```"), std::string::npos);
}

}  // namespace
}  // namespace rq::link
