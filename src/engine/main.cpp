// rqengine: the command line of the engine.
#include <CLI/CLI.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <thread>

#include "base/paths.h"
#include "engine/engine.h"
#include "engine/version.h"
#include "platform/arguments.h"
#include "platform/console.h"
#include "platform/end_request.h"
#include "platform/environment.h"
#include "platform/files.h"
#include "platform/identity.h"
#include "platform/start_up.h"

namespace {

using rq::engine::Engine;
using rq::engine::EngineSettings;

std::string Absolute(const std::string& path) {
    return rq::Utf8FromPath(
        std::filesystem::absolute(rq::PathFromUtf8(path)).lexically_normal().make_preferred());
}

std::string FolderOfProgram() {
    return rq::Utf8FromPath(rq::PathFromUtf8(rq::platform::ModuleFileName()).parent_path());
}

void AddOptions(CLI::App& app, EngineSettings& settings) {
    using rq::platform::GetEnvironment;
    settings.dataFolder =
        GetEnvironment("RQ_ENGINE_DATA").value_or(rq::platform::DefaultDataFolder() + "/engine");
    settings.stageFolder = FolderOfProgram();
    settings.logFolder = GetEnvironment("RQ_LOG_DIR").value_or("");
    app.add_option("--data", settings.dataFolder, "Data folder (store, token, logs); also RQ_ENGINE_DATA")
        ->type_name("DIR")
        ->capture_default_str();
    app.add_option("--port", settings.linkPort, "Port for workers on 127.0.0.1; 0 takes a free one")
        ->type_name("N")
        ->capture_default_str();
    app.add_option("--http-port", settings.httpPort, "Port of the HTTP API on 127.0.0.1; 0 takes a free one")
        ->type_name("N")
        ->capture_default_str();
    app.add_option("--stage", settings.stageFolder, "Folder of RQWorkerU; default: that of this program")
        ->type_name("DIR");
    app.add_option("--max-workers", settings.maxWorkers, "Workers at a time; default: one for each core")
        ->type_name("N")
        ->check(CLI::Range(1, 1000));
    app.add_option_function<int>(
           "--attempts",
           [&settings](int attempts) {
               settings.retry.standard.attempts = attempts;
               for (auto& [type, policy] : settings.retry.byType) policy.attempts = attempts;
           },
           "Attempts of a task whose worker is lost; default: 3")
        ->type_name("N")
        ->check(CLI::Range(1, 100));
    app.add_option("--log", settings.logFolder,
                   "Log root; also RQ_LOG_DIR; default: \"logs\" in the data folder")
        ->type_name("DIR");
    app.set_version_flag("--version", std::string("rqengine ") + rq::engine::kVersion);
}

int Complain(const std::string& message) {
    std::fprintf(stderr, "rqengine: %s\n", message.c_str());
    return 1;
}

// The signals and other requests that ask the engine to end. They are caught from construction on, and kept
// until Serve takes them.
struct EndSignals {
    boost::asio::io_context context;
    boost::asio::signal_set signals{context, SIGINT, SIGTERM};
    std::function<void()> onRequest;  // on the thread that runs the context
    std::unique_ptr<rq::platform::EndRequests> other;

    EndSignals() {
#ifdef SIGHUP
        signals.add(SIGHUP);
#endif
        other = rq::platform::EndRequests::Listen(
            [this] { boost::asio::post(context, [this] { onRequest(); }); });
    }
};

// The engine runs on a thread of its own; this one waits for a signal that asks it to end.
int Serve(Engine& engine, EndSignals& end) {
    end.onRequest = [&engine] { engine.RequestEnd(); };
    end.signals.async_wait([&](const boost::system::error_code& error, int) {
        if (!error) engine.RequestEnd();
    });
    std::thread runner([&] {
        engine.Run();
        end.context.stop();
    });
    end.context.run();
    runner.join();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    rq::platform::OpenStandardStreams();
    const rq::platform::Utf8Console console;
    rq::platform::Arguments arguments(argc, argv);
    CLI::App app("The local engine: queues tasks, starts a worker for each, keeps what happened.",
                 "rqengine");
    EngineSettings settings;
    AddOptions(app, settings);
    try {
        app.parse(arguments.Count(), arguments.Vector());
    } catch (const CLI::ParseError& problem) {
        const int code = app.exit(problem);
        return code == 0 ? 0 : 2;
    }
    if (settings.dataFolder.empty()) {
        Complain("--data (or RQ_ENGINE_DATA) is empty; name a folder");
        return 2;
    }
    if (settings.stageFolder.empty()) {
        Complain("--stage is empty; name the folder of RQWorkerU");
        return 2;
    }
    settings.dataFolder = Absolute(settings.dataFolder);
    settings.stageFolder = Absolute(settings.stageFolder);
    if (!settings.logFolder.empty()) settings.logFolder = Absolute(settings.logFolder);

    EndSignals end;  // before the engine says that it is there
    auto engine = Engine::Create(settings);
    if (!engine) return Complain(engine.error().message);
    rq::platform::WriteStandardOutput("rqengine: link 127.0.0.1:" + std::to_string((*engine)->LinkPort()) +
                                      ", http 127.0.0.1:" + std::to_string((*engine)->HttpPort()) +
                                      ", data " + settings.dataFolder + "\n");
    return Serve(**engine, end);
}
