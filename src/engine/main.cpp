// rqengine: the command line of the engine.
#include <CLI/CLI.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <thread>

#include "base/paths.h"
#include "engine/config_file.h"
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

// What the command line says beside the settings.
struct Wishes {
    std::string config;
    bool printConfig = false;
};

void AddOptions(CLI::App& app, EngineSettings& settings, Wishes& wishes) {
    using rq::platform::GetEnvironment;
    settings.dataFolder =
        GetEnvironment("RQ_ENGINE_DATA").value_or(rq::platform::DefaultDataFolder() + "/engine");
    settings.stageFolder = FolderOfProgram();
    app.add_option("--config", wishes.config,
                   "Configuration file; default: \"engine.toml\" in the data folder, when there is one")
        ->type_name("FILE");
    app.add_flag("--print-config", wishes.printConfig, "Print the settings as a configuration file, and end");
    app.add_option("--data", settings.dataFolder, "Data folder (store, token, logs); also RQ_ENGINE_DATA")
        ->type_name("DIR")
        ->capture_default_str();
    app.add_option("--port", settings.linkPort, "Port for workers on 127.0.0.1; 0 takes a free one")
        ->type_name("N")
        ->capture_default_str();
    app.add_option("--http-port", settings.httpPort, "Port of the HTTP API on 127.0.0.1; 0 takes a free one")
        ->type_name("N")
        ->capture_default_str();
    const CLI::Validator address(
        [](std::string& text) -> std::string {
            boost::system::error_code error;
            boost::asio::ip::make_address(text, error);
            return error ? "\"" + text + "\" is not an address" : "";
        },
        "");
    app.add_option(
           "--listen", settings.listen,
           "A further address for workers, which opens the port to other machines (see docs/engine.md)")
        ->type_name("ADDRESS")
        ->check(address);
    app.add_option("--http-listen", settings.httpListen, "The same of the HTTP API")
        ->type_name("ADDRESS")
        ->check(address);
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

// The settings of the file, with what the environment and then the command line say before it.
rq::Result<EngineSettings> Combine(const CLI::App& app, const EngineSettings& line, const Wishes& wishes) {
    EngineSettings settings;
    settings.dataFolder = line.dataFolder;
    const std::string usual = rq::Utf8FromPath(rq::PathFromUtf8(line.dataFolder) / "engine.toml");
    std::error_code unknown;
    if (!wishes.config.empty() || std::filesystem::exists(rq::PathFromUtf8(usual), unknown)) {
        const std::string file = wishes.config.empty() ? usual : wishes.config;
        if (auto read = rq::engine::ReadConfig(file, settings); !read) return read.error();
        settings.logFolderFrom = file;
    }
    if (const auto log = rq::platform::GetEnvironment("RQ_LOG_DIR"); log && !log->empty()) {
        settings.logFolder = *log;
        settings.logFolderFrom = "RQ_LOG_DIR";
    }
    if (app.count("--log") != 0) {
        settings.logFolder = line.logFolder;
        settings.logFolderFrom = "--log";
    }
    if (app.count("--port") != 0) settings.linkPort = line.linkPort;
    if (app.count("--http-port") != 0) settings.httpPort = line.httpPort;
    if (app.count("--listen") != 0) settings.listen = line.listen;
    if (app.count("--http-listen") != 0) settings.httpListen = line.httpListen;
    if (app.count("--attempts") != 0) settings.retry = line.retry;
    if (app.count("--max-workers") != 0) settings.maxWorkers = line.maxWorkers;
    if (app.count("--stage") != 0 || settings.stageFolder.empty()) settings.stageFolder = line.stageFolder;
    return settings;
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
    if (!engine.Farewell().empty()) std::fprintf(stderr, "rqengine: %s\n", engine.Farewell().c_str());
    return engine.Failure().empty() ? 0 : Complain(engine.Failure());
}

}  // namespace

int main(int argc, char** argv) {
    rq::platform::OpenStandardStreams();
    const rq::platform::Utf8Console console;
    rq::platform::Arguments arguments(argc, argv);
    CLI::App app("The local engine: queues tasks, starts a worker for each, keeps what happened.",
                 "rqengine");
    app.allow_windows_style_options(false);  // "/mnt/media" is a path
    EngineSettings line;
    Wishes wishes;
    AddOptions(app, line, wishes);
    try {
        app.parse(arguments.Count(), arguments.Vector());
    } catch (const CLI::ParseError& problem) {
        const int code = app.exit(problem);
        return code == 0 ? 0 : 2;
    }
    if (line.dataFolder.empty()) {
        Complain("--data (or RQ_ENGINE_DATA) is empty; name a folder");
        return 2;
    }
    if (line.stageFolder.empty()) {
        Complain("--stage is empty; name the folder of RQWorkerU");
        return 2;
    }
    line.dataFolder = Absolute(line.dataFolder);
    auto combined = Combine(app, line, wishes);
    if (!combined) {
        Complain(combined.error().message);
        return 2;
    }
    EngineSettings settings = std::move(*combined);
    settings.stageFolder = Absolute(settings.stageFolder);
    if (!settings.logFolder.empty()) settings.logFolder = Absolute(settings.logFolder);
    if (wishes.printConfig) {
        rq::platform::WriteStandardOutput(rq::engine::ConfigText(settings));
        return 0;
    }

    EndSignals end;  // before the engine says that it is there
    auto engine = Engine::Create(settings);
    if (!engine) return Complain(engine.error().message);
    rq::platform::WriteStandardOutput("rqengine: link 127.0.0.1:" + std::to_string((*engine)->LinkPort()) +
                                      ", http 127.0.0.1:" + std::to_string((*engine)->HttpPort()) +
                                      ", data " + settings.dataFolder + "\n");
    return Serve(**engine, end);
}
