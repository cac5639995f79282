#include "link/codec.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

namespace rq::link {
namespace {

// Not UTF-8, with a zero byte: texts pass as bytes.
const std::string kBytes("\0\xC8\xCE\xCE\xF1\xFF", 6);

template <class Record>
Record ThereAndBack(std::uint32_t id, const Record& record) {
    const Result<std::string> body = EncodeWorkerRecord(id, &record);
    if (!body) {
        ADD_FAILURE() << body.error().message;
        return {};
    }
    const Result<std::string> same = EncodeWorkerRecord(id, WorkerRecord{record});
    EXPECT_TRUE(same && *same == *body);
    const Result<WorkerRecord> decoded = DecodeWorkerRecord(id, *body);
    if (!decoded || !std::holds_alternative<Record>(*decoded)) {
        ADD_FAILURE() << "not decoded as the same record";
        return {};
    }
    return std::get<Record>(*decoded);
}

TEST(Codec, Hello) {
    const Hello hello{1, kBytes, "attempt", 1ull << 40, "1.13.0", 0xFFFFFFFEu, 12, 9};
    const Result<Hello> back = DecodeHello(EncodeHello(hello));
    ASSERT_TRUE(back);
    EXPECT_EQ(back->protocolVersion, 1u);
    EXPECT_EQ(back->token, kBytes);
    EXPECT_EQ(back->attempt, "attempt");
    EXPECT_EQ(back->processId, 1ull << 40);
    EXPECT_EQ(back->workerVersion, "1.13.0");
    EXPECT_EQ(back->resumeSessionId, 0xFFFFFFFEu);
    EXPECT_EQ(back->resumeReceived, 12u);
    EXPECT_EQ(back->resumeAcknowledged, 9u);
}

TEST(Codec, Welcome) {
    const Result<Welcome> back = DecodeWelcome(EncodeWelcome({1, 9, 60'000, 10, 20, "folder", "a1"}));
    ASSERT_TRUE(back);
    EXPECT_EQ(back->sessionId, 9u);
    EXPECT_EQ(back->resumeWindow_ms, 60'000u);
    EXPECT_EQ(back->pingInterval_ms, 10u);
    EXPECT_EQ(back->silenceLimit_ms, 20u);
    EXPECT_EQ(back->spoolFolder, "folder");
    EXPECT_EQ(back->attempt, "a1");
    EXPECT_FALSE(DecodeWelcome(EncodeWelcome({1, 0, 0, 1, 1, {}, {}})));
    EXPECT_FALSE(DecodeWelcome(EncodeWelcome({1, kNoSession, 0, 1, 1, {}, {}})));
}

TEST(Codec, Refuse) {
    const Result<Refuse> back = DecodeRefuse(EncodeRefuse({kRefuseAttempt, "used"}));
    ASSERT_TRUE(back);
    EXPECT_EQ(back->code, 3u);
    EXPECT_EQ(back->text, "used");
}

TEST(Codec, Heartbeat) {
    const HeartbeatRecord back = ThereAndBack<HeartbeatRecord>(4000, {"1.0", kBytes});
    EXPECT_EQ(back.version, "1.0");
    EXPECT_EQ(back.workerGuid, kBytes);
}

TEST(Codec, TaskNotice) {
    const TaskNotice back = ThereAndBack<TaskNotice>(4001, {"1.0", "guid", kBytes});
    EXPECT_EQ(back.version, "1.0");
    EXPECT_EQ(back.workerGuid, "guid");
    EXPECT_EQ(back.taskId, kBytes);
}

TEST(Codec, RepliesUnderEachOfTheirIds) {
    for (const std::uint32_t id : {4003u, 4005u, 4007u, 4016u, 4020u}) {
        const TaskCommandReply back =
            ThereAndBack<TaskCommandReply>(id, {"1.0", "guid", "task", "0", kBytes});
        EXPECT_EQ(back.version, "1.0");
        EXPECT_EQ(back.guid, "guid");
        EXPECT_EQ(back.taskId, "task");
        EXPECT_EQ(back.resultCode, "0");
        EXPECT_EQ(back.message, kBytes);
    }
}

TEST(Codec, ProgressKeepsItsOwnIdAndAnySpeed) {
    EngineProgressMessage message{4009, "process", "Worker", "Lite/Agent", {}};
    message.entries.push_back({"a", "b", "c", 99.5f, std::numeric_limits<float>::infinity(), 62.25f});
    message.entries.push_back({"", "", "", 0.0f, std::numeric_limits<float>::quiet_NaN(), 0.0f});
    const EngineProgressMessage back = ThereAndBack(4008, message);
    EXPECT_EQ(back.id, 4009u);
    EXPECT_EQ(back.kind, "process");
    EXPECT_EQ(back.sender, "Worker");
    EXPECT_EQ(back.receiver, "Lite/Agent");
    ASSERT_EQ(back.entries.size(), 2u);
    EXPECT_EQ(back.entries[0].taskId, "a");
    EXPECT_EQ(back.entries[0].second, "b");
    EXPECT_EQ(back.entries[0].third, "c");
    EXPECT_EQ(back.entries[0].percent, 99.5f);
    EXPECT_TRUE(std::isinf(back.entries[0].speed));
    EXPECT_TRUE(std::isnan(back.entries[1].speed));
    EXPECT_EQ(back.entries[0].averageSpeed, 62.25f);
}

EngineStateMessage StateWith(std::uint32_t status, std::shared_ptr<const stTaskResultBase> result = nullptr) {
    EngineStateMessage message{4009, "state", "Worker", "Lite/Agent", {}};
    message.entries.push_back(
        {"t", "2", "3", 23, status, 0x80000001u, kBytes, 0xFFFFFFFBu, "e", "f", std::move(result)});
    return message;
}

TEST(Codec, StateWithoutResult) {
    const EngineStateMessage back = ThereAndBack(4009, StateWith(3));
    ASSERT_EQ(back.entries.size(), 1u);
    const TaskStatusEntry& entry = back.entries[0];
    EXPECT_EQ(entry.taskId, "t");
    EXPECT_EQ(entry.second, "2");
    EXPECT_EQ(entry.third, "3");
    EXPECT_EQ(entry.taskType, 23u);
    EXPECT_EQ(entry.status, 3u);
    EXPECT_EQ(entry.detailErrorCode, 0x80000001u);
    EXPECT_EQ(entry.detailErrorText, kBytes);
    EXPECT_EQ(entry.errorCode, 0xFFFFFFFBu);
    EXPECT_EQ(entry.errorText, "e");
    EXPECT_EQ(entry.furtherText, "f");
    EXPECT_EQ(entry.result, nullptr);
    EXPECT_FALSE(entry.stalled);
}

TEST(Codec, StateOfAStalledTask) {
    EngineStateMessage message = StateWith(4);
    message.entries[0].stalled = true;
    EXPECT_TRUE(ThereAndBack(4009, message).entries.at(0).stalled);
}

TEST(Codec, StateWithMd5Result) {
    auto result = std::make_shared<stMD5TaskResult>();
    result->files.push_back({0, "a", "b", "m1", "m2", kDifferent, ""});
    result->files.push_back({1, kBytes, "", "", "", kNotCompared, "sum"});
    const EngineStateMessage back = ThereAndBack(4009, StateWith(0, result));
    const auto* got = dynamic_cast<const stMD5TaskResult*>(back.entries.at(0).result.get());
    ASSERT_NE(got, nullptr);
    ASSERT_EQ(got->files.size(), 2u);
    EXPECT_EQ(got->files[0].mode, 0);
    EXPECT_EQ(got->files[0].first, "a");
    EXPECT_EQ(got->files[0].second, "b");
    EXPECT_EQ(got->files[0].firstMd5, "m1");
    EXPECT_EQ(got->files[0].secondMd5, "m2");
    EXPECT_EQ(got->files[0].verification, -1);
    EXPECT_EQ(got->files[1].mode, 1);
    EXPECT_EQ(got->files[1].first, kBytes);
    EXPECT_EQ(got->files[1].computedMd5, "sum");
}

TEST(Codec, StateWithTransferResult) {
    auto result = std::make_shared<stTransferTaskResult>();
    result->verifications.push_back({"a", "b", "m1", "m2", kEqual});
    result->outputs.push_back({2, "o", "p", 1ull << 50, "<x/>", "more"});
    const EngineStateMessage back = ThereAndBack(4009, StateWith(4, result));
    const auto* got = dynamic_cast<const stTransferTaskResult*>(back.entries.at(0).result.get());
    ASSERT_NE(got, nullptr);
    ASSERT_EQ(got->verifications.size(), 1u);
    EXPECT_EQ(got->verifications[0].secondMd5, "m2");
    EXPECT_EQ(got->verifications[0].verification, 1);
    ASSERT_EQ(got->outputs.size(), 1u);
    EXPECT_EQ(got->outputs[0].kind, 2u);
    EXPECT_EQ(got->outputs[0].first, "o");
    EXPECT_EQ(got->outputs[0].second, "p");
    EXPECT_EQ(got->outputs[0].size_bytes, 1ull << 50);
    EXPECT_EQ(got->outputs[0].formatXml, "<x/>");
    EXPECT_EQ(got->outputs[0].furtherText, "more");
}

TEST(Codec, StateWithTranscodeResult) {
    auto result = std::make_shared<stTranscodeTaskResult>();
    result->verifications.push_back({"a", "b", "m1", "m2", kNotCompared});
    result->outputs.push_back({"o", "p", 1, 0xFFFFFFFFu, ~0ull, "<y/>"});
    const EngineStateMessage back = ThereAndBack(4009, StateWith(0, result));
    const auto* got = dynamic_cast<const stTranscodeTaskResult*>(back.entries.at(0).result.get());
    ASSERT_NE(got, nullptr);
    ASSERT_EQ(got->verifications.size(), 1u);
    EXPECT_EQ(got->verifications[0].first, "a");
    ASSERT_EQ(got->outputs.size(), 1u);
    EXPECT_EQ(got->outputs[0].first, "o");
    EXPECT_EQ(got->outputs[0].second, "p");
    EXPECT_EQ(got->outputs[0].value1, 1u);
    EXPECT_EQ(got->outputs[0].value2, 0xFFFFFFFFu);
    EXPECT_EQ(got->outputs[0].value64, ~0ull);
    EXPECT_EQ(got->outputs[0].formatXml, "<y/>");
}

TEST(Codec, AnEmptyResultIsAResult) {
    const EngineStateMessage back = ThereAndBack(4009, StateWith(0, std::make_shared<stMD5TaskResult>()));
    EXPECT_NE(dynamic_cast<const stMD5TaskResult*>(back.entries.at(0).result.get()), nullptr);
}

TEST(Codec, FinalStatusesAreFinishedErrorAndCancelled) {
    for (std::uint32_t status = 0; status < 10; ++status) {
        const bool expected = status == 0 || status == 4 || status == 5;
        EXPECT_EQ(IsFinalTaskStatus(status), expected) << status;
        EXPECT_EQ(IsFinalState(StateWith(status)), expected) << status;
    }
    EXPECT_FALSE(IsFinalState(EngineStateMessage{}));
}

TEST(Codec, RecordsUnderForeignIdsAreErrors) {
    const HeartbeatRecord record{"1.0", ""};
    for (const std::uint32_t id :
         {0u, 1u, 3999u, 4002u, 4004u, 4006u, 4010u, 4014u, 4015u, 4017u, 4019u, 12306u}) {
        EXPECT_FALSE(IsWorkerRecordId(id)) << id;
        EXPECT_FALSE(EncodeWorkerRecord(id, &record)) << id;
        EXPECT_FALSE(DecodeWorkerRecord(id, "")) << id;
    }
    EXPECT_FALSE(EncodeWorkerRecord(4000, nullptr));
    EXPECT_FALSE(EncodeWorkerRecord(4001, WorkerRecord{record}));
}

TEST(Codec, TaskCommandsUnderEachOfTheirIds) {
    TaskCommand command;
    for (std::size_t i = 0; i < command.uuid.size(); ++i) command.uuid[i] = static_cast<std::uint8_t>(i);
    command.text = kBytes;
    command.taskIds = {"one", "", kBytes};
    for (const std::uint32_t id : {4002u, 4004u, 4006u, 4019u}) {
        const Result<std::string> body = EncodeOrder(id, command);
        ASSERT_TRUE(body);
        EXPECT_EQ(*body, EncodeTaskCommand(command));
        const Result<Order> back = DecodeOrder(id, *body);
        ASSERT_TRUE(back && std::holds_alternative<TaskCommand>(*back));
        const auto& got = std::get<TaskCommand>(*back);
        EXPECT_EQ(got.uuid, command.uuid);
        EXPECT_EQ(got.text, command.text);
        EXPECT_EQ(got.taskIds, command.taskIds);
    }
}

TEST(Codec, ACommandWithoutFieldsIsEmptyAndAShortUuidIsRefused) {
    const Result<Order> empty = DecodeOrder(4002, "");
    ASSERT_TRUE(empty);
    EXPECT_EQ(std::get<TaskCommand>(*empty).uuid, TaskCommand{}.uuid);
    EXPECT_TRUE(std::get<TaskCommand>(*empty).taskIds.empty());
    EXPECT_FALSE(DecodeOrder(4002, std::string("\x0A\x03zzz", 5)));
}

TEST(Codec, TaskIdsAreCountedBeforeTheyAreGivenMemory) {
    TaskCommand command;
    command.taskIds.assign(10'000, "");
    std::string body = EncodeTaskCommand(command);
    ASSERT_TRUE(DecodeOrder(4002, body));
    EXPECT_EQ(std::get<TaskCommand>(*DecodeOrder(4002, body)).taskIds.size(), 10'000u);
    body += std::string("\x1A\x00", 2);
    for (const std::uint32_t id : {4002u, 4004u, 4006u, 4019u})
        EXPECT_EQ(DecodeOrder(id, body).error().message,
                  std::to_string(id) + " names more than the 10000 tasks that are taken");
    // Nothing behind the ID that is one too many has been looked at: the body has no good end.
    EXPECT_EQ(DecodeOrder(4002, body + "\xFF").error().message,
              "4002 names more than the 10000 tasks that are taken");
    // Fields of every form between them are not IDs.
    command.taskIds.assign(9'999, "T");
    const std::string others = std::string("\x98\x06\x05", 3) + "\x99\x06" + "12345678" + "\x9A\x06\x03" +
                               "\x1A\x01T" + "\x9D\x06" + "1234" + "\x9B\x06\x9C\x06";
    ASSERT_TRUE(DecodeOrder(4002, others + EncodeTaskCommand(command) + others));
    command.taskIds.assign(10'001, "T");
    EXPECT_EQ(DecodeOrder(4002, others + EncodeTaskCommand(command)).error().message,
              "4002 names more than the 10000 tasks that are taken");
    // A body that ends inside a field is the parser's to refuse.
    EXPECT_EQ(DecodeOrder(4002, "\x1A\x05T").error().message, "the body of 4002 cannot be decoded");
    EXPECT_EQ(DecodeOrder(4002, "\x1A\xFF\xFF\xFF\xFF\x0F").error().message,
              "the body of 4002 cannot be decoded");
}

TEST(Codec, TaskTextsPassAsBytesAndAreCutAtAZero) {
    for (const std::uint32_t id : {4015u, 4017u}) {
        const Result<std::string> body = EncodeOrder(id, TaskTextOrder{"<a>\xC8\xCE</a>", 0});
        ASSERT_TRUE(body);
        const Result<Order> back = DecodeOrder(id, *body);
        ASSERT_TRUE(back);
        EXPECT_EQ(std::get<TaskTextOrder>(*back).text, "<a>\xC8\xCE</a>");
        EXPECT_EQ(std::get<TaskTextOrder>(*back).cut_bytes, 0u);
    }
    EXPECT_FALSE(EncodeTaskText(std::string_view("a\0b", 3)));
    const Result<Order> cut = DecodeOrder(4017, std::string("\x0A\x05"
                                                            "ab\0cd",
                                                            7));
    ASSERT_TRUE(cut);
    EXPECT_EQ(std::get<TaskTextOrder>(*cut).text, "ab");
    EXPECT_EQ(std::get<TaskTextOrder>(*cut).cut_bytes, 3u);
    const Result<Order> missing = DecodeOrder(4017, "");
    ASSERT_TRUE(missing);
    EXPECT_EQ(std::get<TaskTextOrder>(*missing).text, "");
}

TEST(Codec, DestroyReadsNoBody) {
    ASSERT_TRUE(EncodeOrder(4014, DestroyOrder{}));
    EXPECT_EQ(*EncodeOrder(4014, DestroyOrder{}), "");
    EXPECT_TRUE(DecodeOrder(4014, "\xFF\xFF"));
}

TEST(Codec, OrdersUnderForeignIdsAreErrors) {
    for (const std::uint32_t id : {0u, 4u, 4000u, 4001u, 4003u, 4009u, 4018u, 12306u}) {
        EXPECT_FALSE(IsOrderId(id)) << id;
        EXPECT_FALSE(DecodeOrder(id, "")) << id;
        EXPECT_FALSE(EncodeOrder(id, DestroyOrder{})) << id;
    }
    EXPECT_FALSE(EncodeOrder(4017, TaskCommand{}));
}

// Seeded noise into every decoder: an error or a record, never a crash.
TEST(Codec, DecodersSurviveNoise) {
    std::mt19937 random(4000);
    const std::string seed =
        *EncodeWorkerRecord(4009, WorkerRecord{StateWith(0, std::make_shared<stMD5TaskResult>())});
    std::size_t refused = 0;
    for (int round = 0; round < 20'000; ++round) {
        std::string bytes = seed;
        if (round % 2 == 0) {
            bytes.resize(random() % 100);
            for (char& byte : bytes) byte = static_cast<char>(random());
        } else {
            bytes[random() % bytes.size()] = static_cast<char>(random());
        }
        for (std::uint32_t id = 4000; id <= 4020; ++id) {
            if (IsWorkerRecordId(id)) refused += DecodeWorkerRecord(id, bytes) ? 0 : 1;
            if (IsOrderId(id)) refused += DecodeOrder(id, bytes) ? 0 : 1;
        }
        refused += DecodeHello(bytes) ? 0 : 1;
        refused += DecodeWelcome(bytes) ? 0 : 1;
        refused += DecodeRefuse(bytes) ? 0 : 1;
    }
    EXPECT_GT(refused, 20'000u);
}

}  // namespace
}  // namespace rq::link
