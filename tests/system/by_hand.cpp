#include "by_hand.h"

#include "bad_plugins/bad_plugins.h"
#include "base/paths.h"

namespace rq::system_test {

namespace fs = std::filesystem;

namespace {

fs::path Fixture() {
    return kit::ProgramIn(RQ_FIXTURES, "rq_process_fixture");
}

}  // namespace

std::string Md5TaskText(const fs::path& file) {
    return "<MD5Task><ID>by hand</ID><Files><File><Path>" + Utf8FromPath(file) +
           "</Path></File></Files></MD5Task>";
}

std::unique_ptr<kit::Child> StartWorkerByHand(const Node& node, const std::vector<std::string>& arguments,
                                              const std::string& token) {
    kit::Child::Options options;
    options.environment = {{"RQ_CONSOLE_ENCODING", ""},
                           {"RQ_LOG_DIR", Utf8FromPath(node.Folder().Path() / "logs")},
                           {"RQ_ENGINE_TOKEN", token}};
    options.directory = node.Stage();
    return std::make_unique<kit::Child>(kit::ProgramIn(node.Stage(), "RQWorkerU"), arguments, options);
}

fs::path UseScriptedPlugin(const Node& node) {
    fs::path folder = node.InstallPlugin(PathFromUtf8(test::BadPlugin("scripted")), 3);
    fs::copy_file(Fixture(), folder / Fixture().filename());
    return folder;
}

std::string LeavesAProcessAndHangs() {
    const std::string command = Utf8FromPath(("." / Fixture().filename()).make_preferred());
    return "id t; run " + command + " grandchild left.pid; until-stop 600000; status 0";
}

}  // namespace rq::system_test
