#include "node.h"

#include <gtest/gtest.h>

#include <fstream>
#include <stdexcept>

#include "base/paths.h"
#include "base/text.h"
#include "kit/sparse_file.h"
#include "platform/files.h"

namespace rq::system_test {

namespace fs = std::filesystem;
using kit::Child;

Node::Node(bool startEngine, int attempts) : m_attempts(attempts) {
    kit::CopyStage(Stage());
    // Progress each second, so that a test sees some.
    kit::ReplaceElementText(Stage() / "actor.xml", "ProgressReportInterval", "1");
    // Workers end with their engine.
    platform::CreatePrivateFolder(Utf8FromPath(Data()));
    std::ofstream(Data() / "engine.toml") << "[limits]\nresume_s = 0\n";
    if (startEngine) StartEngine();
}

Node::~Node() {
    if (m_engine && m_engine->IsRunning()) EndEngine();
}

void Node::StartEngine(int linkPort) {
    const fs::path announced = Data() / "engine.json";
    m_engine = std::make_unique<Child>(
        kit::ProgramIn(Stage(), "rqengine"),
        std::vector<std::string>{"--data", Utf8FromPath(Data()), "--port", std::to_string(linkPort),
                                 "--http-port", "0", "--attempts", std::to_string(m_attempts)});
    // An engine that was killed leaves its announcement behind: wait for one of this process.
    const std::string pid = std::to_string(m_engine->Id());
    const bool up = kit::WaitUntil([&] {
        if (!m_engine->IsRunning()) return true;
        const auto json = nlohmann::json::parse(kit::ReadBytes(announced), nullptr, false);
        return json.is_object() && json.value("pid", 0u) == m_engine->Id();
    });
    if (!up || !m_engine->IsRunning())
        throw std::runtime_error("the engine did not come up: " + m_engine->Output() + m_engine->Errors());
}

fs::path Node::InstallPlugin(const fs::path& library, std::int32_t type) const {
    const fs::path place = ("plugins" / library.stem() / library.filename()).make_preferred();
    fs::create_directories((Stage() / place).parent_path());
    fs::copy_file(library, Stage() / place);
    platform::ReplaceWholeFile(Utf8FromPath(Stage() / "RQWorkerConfig.xml"),
                               "<WorkerConfig><WORKER><TYPE>" + std::to_string(type) + "</TYPE><PATH>" +
                                   Utf8FromPath(place) + "</PATH></WORKER></WorkerConfig>",
                               false);
    return (Stage() / place).parent_path();
}

int Node::EndEngine() {
    m_engine->RequestEnd();
    return m_engine->ExitCode();
}

int Node::LinkPort() const {
    return nlohmann::json::parse(kit::ReadBytes(Data() / "engine.json")).at("link_port").get<int>();
}

std::string Node::Token() const {
    std::string token = kit::ReadBytes(Data() / "engine.token");
    while (!token.empty() && token.back() == '\n') token.pop_back();
    return token;
}

Outcome Node::Ctl(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {"--data", Utf8FromPath(Data())});
    Child ctl(kit::ProgramIn(Stage(), "rqctl"), arguments);
    Outcome outcome;
    outcome.code = ctl.ExitCode(std::chrono::seconds(200));
    outcome.output = ctl.Output();
    outcome.errors = ctl.Errors();
    return outcome;
}

nlohmann::json Node::Show(const std::string& task) const {
    const Outcome outcome = Ctl({"show", task, "--json"});
    return nlohmann::json::parse(outcome.output, nullptr, false);
}

std::string Node::SubmitText(const std::string& type, const std::string& text) const {
    const auto file = m_folder.Write("task-text.xml", text);
    const Outcome outcome = Ctl({"submit", "--type", type, "--text", Utf8FromPath(file)});
    EXPECT_EQ(outcome.code, 0) << outcome.output << outcome.errors;
    std::string id = outcome.output;
    while (!id.empty() && (id.back() == '\n' || id.back() == '\r')) id.pop_back();
    return outcome.code == 0 ? id : "";
}

std::string Node::SubmitMd5(const fs::path& file) const {
    const Outcome outcome = Ctl({"submit", "md5", Utf8FromPath(file)});
    EXPECT_EQ(outcome.code, 0) << outcome.output << outcome.errors;
    std::string id = outcome.output;
    while (!id.empty() && (id.back() == '\n' || id.back() == '\r')) id.pop_back();
    return outcome.code == 0 ? id : "";
}

nlohmann::json Node::WaitForState(const std::string& task, const std::vector<std::string>& states) const {
    nlohmann::json record;
    const bool there = kit::WaitUntil([&] {
        record = Show(task);
        const std::string state = record.is_object() ? record.value("state", "") : "";
        return std::find(states.begin(), states.end(), state) != states.end();
    });
    EXPECT_TRUE(there) << "the task stays at: " << record.dump(2);
    return record;
}

nlohmann::json Node::WaitForEnd(const std::string& task) const {
    return WaitForState(task, {"finished", "failed", "cancelled", "lost"});
}

std::string Node::WorkerLog() const {
    const auto logs = kit::FindFiles(m_folder.Path(), "_W.log");
    return logs.size() == 1 ? kit::ReadBytes(logs.front()) : "";
}

fs::path MakeSparse(const fs::path& path, std::uintmax_t size) {
    std::ofstream(path, std::ios::binary) << "begins like this";
    kit::MakeSparseFile(path, size);
    return path;
}

}  // namespace rq::system_test
