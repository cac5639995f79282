// A stand-in for the worker in the engine's tests: started with the same four arguments, it takes the lines
// of its task text as what to do. It knows nothing of plug-ins.
//
//   connect            to the engine, with the token and the attempt from the environment
//   connect-again      a second connection with the same attempt; the answer's code goes into the next final
//   connect-anew       with a new session, in place of one that it knows nothing of
//   status notice ID | status N | progress PERCENT SPEED final N            and waits for its
//   acknowledgement; final-text N TEXT is one with an error text await ID           waits for this order (the
//   text of a 4015 goes into the next final status); reply ID answers one bye | close        ends the
//   connection in good order, or just so print TEXT | sleep MS | hang | exit CODE | killed
//   lose               waits for the end of the connection; resume does the same and continues the session
//   spool N            leaves this final status in the spool, as the next frame; spool N late: a frame that
//   is no
//                      status is missing before it; spool N unheard: one that is; spool N had: it was sent
//   environment NAME   its value goes into the next final status
//   in N LINE          does the line in attempt N alone
//   first LINE         does the line in the worker's first task alone
//   serve              does the lines of the add orders' texts, one text after the other, until told to stop
//   resumes            from now on serve continues the session when its connection ends
//   stall              status 4 of the patrol; then serve does nothing any more
//   goes-on            it does
//   stops              it does not
//   again              sends the latest final status again, marked
#include <chrono>
#include <cstdio>
#include <deque>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>

#include "base/paths.h"
#include "engine/link_client.h"
#include "kit/os.h"
#include "link/spool_file.h"
#include "platform/environment.h"
#include "platform/files.h"
#include "platform/process.h"

namespace {

using namespace rq;
using namespace rq::engine;

struct Script {
    std::uint16_t port = 0;
    int attempt = 0;
    std::unique_ptr<LinkClient> link = std::make_unique<LinkClient>();
    std::string furtherText;
    std::deque<std::string> texts;  // of add orders
    bool serving = false;
    bool stopped = false;
    bool resumes = false;
    std::string lastFinal;  // its body
    std::uint64_t lastStatus = 0;

    std::string Environment(const char* name) { return platform::GetEnvironment(name).value_or(""); }

    std::optional<std::uint32_t> Greet(LinkClient& client) {
        if (!client.Connect(port)) return std::nullopt;
        client.SetProcess(platform::CurrentProcessId());
        return client.Greet(Environment("RQ_ENGINE_TOKEN"), Environment("RQ_ATTEMPT"));
    }

    void Final(std::uint32_t status, const std::string& text) {
        auto message = StateMessage(status);
        auto& entry = message.entries.back();
        entry.errorText = text;
        entry.furtherText = furtherText;
        if (status == kTaskFinished) {
            auto result = std::make_shared<stMD5TaskResult>();
            result->files.push_back(
                {1, "/a b", "", "", "", kNotCompared, "d41d8cd98f00b204e9800998ecf8427e"});
            entry.result = std::move(result);
        }
        lastFinal = link::EncodeWorkerRecord(TCP_WORKER_STATE_ID, link::WorkerRecord(message)).value();
        link->WaitAck(link->SendBody(TCP_WORKER_STATE_ID, lastFinal));
    }

    void Stall() {
        stopped = true;
        FailLikeAStall(true);
    }
    // A plug-in's own error with the codes that the worker reports of a stalled task.
    void FailLikeAStall(bool stalled = false) {
        auto message = StateMessage(kTaskError);
        auto& entry = message.entries.back();
        entry.detailErrorCode = 0x80000001;
        entry.errorCode = 6;
        entry.stalled = stalled;
        link->WaitAck(link->Send(TCP_WORKER_STATE_ID, message));
    }

    bool Resume() {
        link->WaitClose();
        for (int i = 0; i < 600; ++i) {
            const auto code = link->Resume(port, Environment("RQ_ENGINE_TOKEN"));
            if (code == 0u) return true;
            if (code && *code != link::kRefuseEnding) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }
    void Spool(std::uint32_t status, const std::string& what) {
        const auto seq = link->Sent() + (what == "had" ? 0 : what.empty() ? 1 : 2);
        const auto previous = what == "unheard" ? seq - 1 : lastStatus;
        const auto& welcome = link->Welcome();
        const auto body = link::EncodeWorkerRecord(TCP_WORKER_STATE_ID, StateMessage(status));
        platform::ReplaceWholeFile(
            Utf8FromPath(PathFromUtf8(welcome.spoolFolder) / (welcome.attempt + ".final")),
            link::EncodeSpoolFile(seq, body.value(), previous), false);
    }

    // The next order that is no add order; of those the texts are kept.
    std::optional<link::Frame> NextOrder(bool orText = false) {
        for (auto order = link->WaitOrder(); order; order = link->WaitOrder()) {
            if (order->id == TCP_TASK_CANCEL_ID || order->id == TCP_TASK_FINISH_ID) stopped = true;
            if (order->id != TCP_TASK_ADD_ID) return order;
            const auto add = link::DecodeOrder(order->id, order->body);
            texts.push_back(std::get<link::TaskTextOrder>(*add).text);
            if (orText) return order;
        }
        return std::nullopt;
    }

    bool Serve() {
        serving = true;
        while (!stopped) {
            if (texts.empty()) {
                const auto order = NextOrder(true);
                if (!order && resumes && Resume()) continue;
                if (!order) return false;
                if (order->id != TCP_TASK_ADD_ID) Answer(order->id + 1);
                continue;
            }
            std::istringstream lines(texts.front());
            texts.pop_front();
            attempt = 1;
            if (!DoAll(lines)) return false;
        }
        serving = false;
        return true;
    }

    void Answer(std::uint32_t id) {
        // "ended" in GBK
        link->Send(id, TaskCommandReply{"1.0", "guid-1", "job", "0", "\xBD\xE1\xCA\xF8"});
    }

    bool DoAll(std::istream& lines) {
        for (std::string line; std::getline(lines, line);) {
            std::istringstream rest(line);
            std::string verb;
            if (rest >> verb && !Do(verb, rest)) return false;
        }
        return true;
    }

    // False: the script is over.
    bool Do(const std::string& verb, std::istringstream& rest) {
        std::string text;
        double number = 0, second = 0;
        if (verb == "in") {
            rest >> number >> text;
            return static_cast<int>(number) != attempt || Do(text, rest);
        }
        if (verb == "first") {
            rest >> text;
            return serving || Do(text, rest);
        }
        if (verb == "serve") return Serve();
        if (verb == "connect") return Greet(*link) == 0u;
        if (verb == "connect-anew") {
            link = std::make_unique<LinkClient>();
            for (int i = 0; i < 100 && Greet(*link) != 0u; ++i) {
                link = std::make_unique<LinkClient>();
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
        } else if (verb == "connect-again") {
            LinkClient other;
            furtherText = "refused " + std::to_string(Greet(other).value_or(99));
        } else if (verb == "notice") {
            rest >> text;
            link->Send(TCP_WORKER_SEND_ID, TaskNotice{"1.0", "guid-1", text});
        } else if (verb == "status") {
            rest >> number;
            lastStatus = link->Send(TCP_WORKER_STATE_ID, StateMessage(static_cast<std::uint32_t>(number)));
        } else if (verb == "progress") {
            rest >> number >> second;
            const auto seq = link->Send(TCP_WORKER_PROGRESS_ID, ProgressMessage(static_cast<float>(number),
                                                                                static_cast<float>(second)));
            return link->WaitAck(seq);
        } else if (verb == "final" || verb == "final-text") {
            rest >> number;
            std::getline(rest >> std::ws, text);
            Final(static_cast<std::uint32_t>(number), text);
        } else if (verb == "await") {
            rest >> number;
            auto order = NextOrder();
            while (order && order->id != number) order = NextOrder();
            if (order && order->id == TCP_TASK_UPDATE_ID) {
                const auto decoded = link::DecodeOrder(order->id, order->body);
                furtherText = std::get<link::TaskTextOrder>(*decoded).text;
            }
        } else if (verb == "reply") {
            rest >> number;
            Answer(static_cast<std::uint32_t>(number));
        } else if (verb == "resumes") {
            resumes = true;
        } else if (verb == "stall") {
            Stall();
        } else if (verb == "fail-like-a-stall") {
            FailLikeAStall();
        } else if (verb == "goes-on" || verb == "stops") {
            stopped = verb == "stops";
        } else if (verb == "again") {
            std::string body = lastFinal;
            link::MarkRepeat(body);
            link->WaitAck(link->SendBody(TCP_WORKER_STATE_ID, body));
        } else if (verb == "bye") {
            link->SendFrame({0, 0, link::kByeId, {}});
            link->WaitClose();
        } else if (verb == "close") {
            link->Close();
        } else if (verb == "lose") {
            link->WaitClose();
        } else if (verb == "resume") {
            return Resume();
        } else if (verb == "spool") {
            rest >> number >> text;
            Spool(static_cast<std::uint32_t>(number), text);
        } else if (verb == "environment") {
            rest >> text;
            furtherText = Environment(text.c_str());
        } else if (verb == "print") {
            std::getline(rest >> std::ws, text);
            std::printf("%s\n", text.c_str());
        } else if (verb == "sleep") {
            rest >> number;
            std::this_thread::sleep_for(std::chrono::milliseconds(static_cast<int>(number)));
        } else if (verb == "hang") {
            for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
        } else if (verb == "exit") {
            rest >> number;
            std::fflush(stdout);
            std::_Exit(static_cast<int>(number));
        } else if (verb == "killed") {
            kit::EndProcess(platform::CurrentProcessId());
            for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
        }
        return true;
    }
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) return 64;
    std::ifstream file(argv[2]);
    Script script;
    script.port = static_cast<std::uint16_t>(std::stoi(argv[3]));
    // t12a3_...: the third attempt
    const std::string name = argv[2];
    script.attempt = std::atoi(name.c_str() + name.rfind('a', name.rfind('_')) + 1);
    std::printf("type %s flag %s\n", argv[1], argv[4]);
    return script.DoAll(file) ? 0 : 65;
}
