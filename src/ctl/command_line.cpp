#include "ctl/command_line.h"

#include "ctl/md5_task.h"
#include "platform/environment.h"
#include "platform/identity.h"

namespace rq::ctl {

namespace {

// What is wrong with a value the engine says, by the field's name.
void AddRunOptions(CLI::App* command, RunFields& run) {
    command->add_option("--priority", run.priority, "0 to 100, otherwise 50; higher goes first")
        ->type_name("N");
    command
        ->add_option("--not-before", run.notBefore,
                     "Start no sooner: 2025-01-31T10:00:00Z, or +90s, +15m, +2h, +7d")
        ->type_name("TIME");
    command->add_option("--deadline", run.deadline, "A task that is queued then fails; as --not-before")
        ->type_name("TIME");
    command
        ->add_option("--deadline-action", run.deadlineAction,
                     "Of one that a worker has then: none or cancel; otherwise none")
        ->type_name("ACTION");
    command->add_option("--memory", run.memory_MiB, "Memory that it takes, in MiB")->type_name("MIB");
    command->add_option("--cores", run.cores, "Processor cores that it keeps busy")->type_name("N");
    command
        ->add_option("--volume", run.volumes,
                     "Volume that it reads or writes, by name or path; may be repeated")
        ->type_name("NAME")
        ->allow_extra_args(false);
    command->add_option("--key", run.key, "The same key with the same task is the same submission")
        ->type_name("KEY");
}

void AddSubmitOptions(CLI::App* command, CommandLine& line) {
    command->add_option("--name", line.name, "A name for people, at most 200 bytes");
    AddRunOptions(command, line.run);
    command->add_flag("--wait", line.wait, "Wait for the end and print the result");
    command->add_flag("--watch", line.watch, "The same, with a progress bar");
    command->add_flag("--json", line.json,
                      "The answer as JSON; with --wait or --watch then a line for each change");
}

// The values' texts go into the task as they are; the plug-in says what is wrong with them.
void AddTranscode(CLI::App& submit, CommandLine& line) {
    TranscodeOptions& to = line.transcode;
    auto* command = submit.add_subcommand("transcode", "Make an MP4 or MKV file out of a media file");
    command->fallthrough();
    command->add_option("source", to.source, "File to read")->required()->type_name("SOURCE");
    command->add_option("target", to.target, "File to make")->required()->type_name("TARGET");
    command->add_option("--container", to.container, "mp4 or mkv; otherwise by TARGET's ending");
    command->add_flag("--overwrite", to.overwrite, "Replace TARGET when it exists");
    command->add_flag("--ignore-damage", to.ignoreDamage, "Go on after damage in SOURCE");
    command->add_option("--in", to.in_s, "Where to begin, in seconds");
    command->add_option("--out", to.out_s, "Where to end, in seconds");
    command->add_option("--video", to.video,
                        "h264, mpeg2video, copy or none; otherwise h264 if there is any");
    command->add_option("--width", to.width_px, "Pixels, even; otherwise by the height or the source");
    command->add_option("--height", to.height_px, "Pixels, even");
    command->add_option("--fps", to.frameRate_fps, "Frames per second: 25, 23.976, 30000/1001");
    command->add_option("--bitrate", to.videoBitRate_kbps, "Of the video, in 1000 bit/s");
    command->add_option("--crf,--quality", to.quality,
                        "Instead: h264 0 to 51, mpeg2video 1 to 31; less is better");
    command->add_option("--preset", to.preset, "h264: ultrafast to placebo");
    command->add_option("--gop", to.keyFrameInterval_frames, "Frames between pictures that stand alone");
    command->add_option("--bframes", to.bFrames, "B frames in a row");
    command->add_option("--audio", to.audio,
                        "aac, pcm_s16le, pcm_s24le, copy or none; otherwise aac if there is any");
    command->add_option("--rate", to.sampleRate_Hz, "Samples a second");
    command->add_option("--channels", to.channels, "1 to 8");
    command->add_option("--audio-bitrate", to.audioBitRate_kbps, "Of AAC, in 1000 bit/s");
    AddSubmitOptions(command, line);
}

void AddTransfer(CLI::App& submit, CommandLine& line) {
    TransferOptions& to = line.transfer;
    auto* command = submit.add_subcommand("transfer", "Copy or move a file or folder, from or to a URL too");
    command->fallthrough();
    command->add_option("source", to.source, "File, folder or URL to read")->required()->type_name("SOURCE");
    command->add_option("target", to.target, "What it becomes: file, folder or URL")
        ->required()
        ->type_name("TARGET");
    command->add_flag("--move", to.move, "Remove SOURCE when TARGET is whole");
    command->add_flag("--overwrite", to.overwrite, "Replace files that are there");
    command->add_flag("--md5", to.md5, "Tell the MD5 of what passed");
    command->add_flag("--sha256", to.sha256, "Tell the SHA-256 of what passed");
    command->add_flag("--verify", to.verify, "Read TARGET back before it gets its name");
    command->add_flag("--manifest", to.manifest, "Write the digests beside TARGET");
    command->add_option("--rate", to.rate_kBps, "At most so many kilobytes a second")->type_name("KB");
    command->add_option("--expect", to.expected, "MD5 that SOURCE must have")->type_name("HEX");
    command->add_option("--credentials", to.credentials, "Of a URL: their entry's name on the node")
        ->type_name("NAME");
    AddSubmitOptions(command, line);
}

void AddSubmit(CLI::App& app, CommandLine& line) {
    auto* submit = app.add_subcommand("submit", "Give the engine a task");
    submit->fallthrough();
    submit->add_option("--type", line.type, "Type code (mc, mv, tc, ...) or number of a raw task")
        ->type_name("CODE");
    submit->add_option("--text", line.text, "File with the task text of a raw task; - is standard input")
        ->type_name("FILE");
    AddSubmitOptions(submit, line);
    auto* md5 = submit->add_subcommand(
        "md5", "Compute the MD5 of files and folders, or verify it with --expect or --check");
    md5->fallthrough();
    md5->add_option("files", line.md5.files, "Files or folders; relative names are made absolute")
        ->type_name("FILE");
    md5->add_option("--expect", line.md5.expected, "Expected MD5, once for each file in the same order")
        ->type_name("HEX")
        ->allow_extra_args(false);
    md5->add_option("--check", line.md5.checks, "Instead of files: a checksum file whose files are verified")
        ->type_name("FILE")
        ->allow_extra_args(false);
    md5->add_option("--write", line.md5.checksumFile, "Checksum file to make")->type_name("FILE");
    md5->add_flag("--overwrite", line.md5.overwrite, "Replace the checksum file when it exists");
    md5->add_option("--threads", line.md5.threads,
                    "How many files are read at a time, 1 to 64; otherwise one for each of --cores")
        ->check(CLI::Range(1, kMaxMd5Threads));
    AddSubmitOptions(md5, line);
    AddTranscode(*submit, line);
    AddTransfer(*submit, line);
}

void AddOrders(CLI::App& app, CommandLine& line) {
    const auto add = [&](const char* name, const char* meaning) {
        auto* command = app.add_subcommand(name, meaning);
        command->add_flag("--json", line.json, "The answer as JSON");
        command->fallthrough();
        return command;
    };
    for (const auto& order : kTaskOrders)
        add(order.name, order.meaning)->add_option("id", line.id, "Task ID")->required();
    auto* update = add("update", "Give a queued, running or paused task another text");
    update->add_option("id", line.id, "Task ID")->required();
    update->add_option("--text", line.text, "File with the task text; - is standard input")
        ->required()
        ->type_name("FILE");
    auto* priority = add("priority", "Change the turn of a queued task, or of a later attempt");
    priority->add_option("id", line.id, "Task ID")->required();
    priority->add_option("number", line.priority, "0 to 100; higher goes first")->required()->type_name("N");
    auto* drain = add("drain", "Start no further task, until undrain; what runs goes on");
    auto* undrain = add("undrain", "Start tasks again; with --type also a type that failed too often");
    for (auto* command : {drain, undrain})
        command->add_option("--type", line.type, "Only tasks of this type: its code or number")
            ->type_name("CODE");
}

}  // namespace

void AddCommands(CLI::App& app, CommandLine& line) {
    app.allow_windows_style_options(false);  // "/mnt/media/clip" is a path; the commands below inherit it
    line.dataFolder =
        platform::GetEnvironment("RQ_ENGINE_DATA").value_or(platform::DefaultDataFolder() + "/engine");
    app.add_option("--data", line.dataFolder, "Data folder of the engine; also RQ_ENGINE_DATA")
        ->type_name("DIR")
        ->capture_default_str();
    app.set_version_flag("--version", std::string("rqctl ") + RQ_VERSION);
    app.require_subcommand(1);
    AddSubmit(app, line);
    auto* list = app.add_subcommand("list", "List tasks, newest first");
    list->add_option("--state", line.list.states, "Only these states, separated by commas")
        ->type_name("STATES");
    list->add_option("--limit", line.list.limit, "How many at most")
        ->check(CLI::Range(1, 1'000'000))
        ->capture_default_str();
    list->add_flag("--json", line.list.json, "As JSON");
    auto* show = app.add_subcommand("show", "Show everything about a task");
    show->add_option("id", line.id, "Task ID")->required();
    show->add_flag("--json", line.show.json, "As JSON");
    show->add_flag("--events", line.show.events, "With its events");
    auto* watch = app.add_subcommand(
        "watch",
        "Follow a task to its end and print the result; several, or all that have not ended, in a table");
    watch->add_option("ids", line.ids, "Task IDs; none: all, until Ctrl-C")->type_name("ID");
    watch->add_flag("--json", line.json, "A line of JSON for each change");
    auto* explain = app.add_subcommand("explain", "Say why a task waits, is slow, or ended as it did");
    explain->add_option("id", line.id, "Task ID")->required();
    explain->add_flag("--json", line.json, "As JSON");
    auto* completion =
        app.add_subcommand("completion", "Print the script with which a shell completes this command line");
    completion->add_option("shell", line.shell, "bash, zsh or powershell")->required()->type_name("SHELL");
    AddOrders(app, line);
    auto* bundle =
        app.add_subcommand("bundle", "Put everything about a task into one archive, without secrets");
    bundle->add_option("id", line.id, "Task ID")->required();
    bundle->add_option("--output", line.file, "File to make; otherwise ID-bundle.tar.gz here")
        ->type_name("FILE");
    bundle->add_flag("--json", line.json, "The answer as JSON");
    auto* backup = app.add_subcommand("backup", "Copy the engine's store while it runs");
    backup->add_option("file", line.file, "File to make")->required()->type_name("FILE");
    backup->add_flag("--json", line.json, "The answer as JSON");
    auto* path = app.add_subcommand("path", "Paths of task texts on the engine's node");
    path->require_subcommand(1);
    path->fallthrough();
    auto* pathTest = path->add_subcommand("test", "What becomes of a path, and whether it can be reached");
    pathTest->fallthrough();
    pathTest->add_option("path", line.file, "As it stands in a task text")->required()->type_name("PATH");
    pathTest->add_flag("--json", line.json, "The answer as JSON");
    auto* gc = app.add_subcommand("gc", "Remove what the engine's settings no longer keep");
    gc->add_flag("--json", line.json, "As JSON");
    auto* errorName =
        app.add_subcommand("error-name", "Tell the name and text of a result code; needs no engine");
    auto* code = errorName->add_option("code", line.code, "0x84100014, 2215641108 or -5")->type_name("CODE");
    errorName
        ->add_option("--family", line.family,
                     "0 codec, 1 network, 3 inspection, 4 task; otherwise those that know it")
        ->check(CLI::Range(0u, 4u))
        ->needs(code);
    errorName->add_flag("--all", line.all, "Every known code as CSV: family,code,name")->excludes(code);
    auto* replay =
        app.add_subcommand("replay", "Play the engine's side of a link journal to a worker; needs no engine");
    replay->add_option("file", line.journal, "What a worker wrote with RQ_LINK_JOURNAL")
        ->required()
        ->type_name("FILE");
    auto* print = replay->add_flag("--print", line.replay.print, "Only print the whole journal in words");
    replay->add_option("--port", line.replay.port, "Port to wait on; otherwise a free one")
        ->excludes(print)
        ->type_name("PORT");
    replay->add_option("--connection", line.replay.connection, "Which connection of the journal")
        ->excludes(print)
        ->capture_default_str();
    replay->add_option("--wait", line.replayWait_s, "Seconds to wait for the worker's next message")
        ->check(CLI::Range(1, 86'400))
        ->capture_default_str();
    auto* shutdown = app.add_subcommand(
        "shutdown", "End the engine in good order; its workers go on, and wait for the next one for a while");
    shutdown->add_flag("--cancel", line.cancel, "Cancel what runs, and end the workers with the engine");
    shutdown->add_flag("--json", line.json, "The answer as JSON");
    for (auto* command :
         {list, show, watch, explain, completion, bundle, backup, gc, path, errorName, replay, shutdown})
        command->fallthrough();
    app.footer(
        "Ends with 0 finished or done (also when nothing was left to do), 1 failed or lost, 2 wrong use, 3 "
        "no engine, 4 cancelled, 5 the task's state does not allow the order.");
}

}  // namespace rq::ctl
