// Api: answers the requests of docs/api.md. It knows nothing of sockets: a request comes in, and its answer
// goes to a callback, at once or (an event poll) later. Everything runs on the I/O thread.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "engine/api_request.h"
#include "engine/node_facts.h"
#include "engine/path_map.h"
#include "engine/store.h"
#include "engine/upkeep.h"

namespace rq::engine {

// What the API needs of the engine besides its store.
class ApiHost {
  public:
    struct Facts {
        std::uint64_t processId = 0;
        std::int64_t started_us = 0;
        std::uint16_t linkPort = 0;
        std::uint16_t httpPort = 0;
        std::size_t workers = 0;
        unsigned maxWorkers = 0;
        bool ending = false;
        std::string log = {};                           // the engine's own log
        std::map<std::int32_t, std::string> held = {};  // types that cannot start, and why
    };

    virtual ~ApiHost() = default;
    virtual Facts GetFacts() const = 0;
    virtual void OnSubmitted() = 0;
    // An order to a task that the store knows; `text` goes with Update, and a whole number with Prioritise.
    virtual Result<OrderOutcome> GiveOrder(std::int64_t task, StateEvent order, const std::string& text) = 0;
    // No task of this type (or of any: kEveryType) is started until GoOn. False: nothing changed.
    virtual Result<bool> Drain(std::int32_t type) = 0;
    virtual Result<bool> GoOn(std::int32_t type) = 0;
    virtual std::vector<WaitReason> WhyWaits(const TaskRow& task) = 0;
    // Whether clients may reach the API at another address than this machine's own name for itself.
    virtual bool IsOpenToOthers() const { return false; }
    // Volumes by name; refuses what could never start on this node.
    virtual std::optional<FieldError> Accept(NewTask&) const { return std::nullopt; }
    virtual NodeFacts GetNodeFacts() const { return {}; }
    // Why nothing can be accepted at present.
    virtual std::optional<std::string> SubmitTrouble() { return std::nullopt; }
    // Why queued tasks of this type cannot be started; nothing when they can.
    virtual std::optional<std::string> HoldReason(std::int32_t) const { return std::nullopt; }
    // What paths in task texts are called here.
    virtual const PathMap& Paths() const {
        static const PathMap none;
        return none;
    }
    // Fills in which files the attempt's worker left.
    virtual void FindTraces(AttemptRow&) const {}
    // Everything that is not in the store.
    virtual MetricsFacts GetMetricsFacts() const { return {}; }
    virtual void CollectGarbage(Upkeep::OnCollected done) { done(GarbageReport{}); }
    virtual void Backup(const std::string&, Upkeep::OnCopied done) { done(Fail("not here")); }
    // Begins an orderly end, with or without its workers; returns at once.
    virtual void RequestEndFromApi(bool cancel) = 0;
};

class Api {
  public:
    using Reply = std::function<void(ApiResponse)>;

    Api(boost::asio::io_context& io, Store& store, ApiHost& host, std::string token);
    ~Api();

    // The answer to a request that names another host or lacks the token; its body need not be there yet.
    std::optional<ApiResponse> Refuse(const ApiRequest& request) const;
    // `reply` is called exactly once, unless the Api is destroyed first.
    void Handle(const ApiRequest& request, const Reply& reply);
    // A task has new events.
    void OnEvents(std::int64_t task);
    // Answers every waiting poll now, and from now on none waits.
    void EndWaits();

  private:
    struct Wait {
        std::int64_t task = 0;
        std::int64_t after = 0;
        Reply reply;
        boost::asio::steady_timer timer;
        Wait(boost::asio::io_context& io) : timer(io) {}
    };

    void Route(const ApiRequest& request, const Target& target, const Reply& reply);
    void RouteTask(const ApiRequest& request, const Target& target, const Reply& reply);
    // The task in short, as it stands with what the engine knows beside the store.
    nlohmann::json Short(TaskRow task) const;
    // Paths outside of /api/v1, for probes and collectors.
    void RouteProbe(const ApiRequest& request, const Target& target, const Reply& reply);
    ApiResponse Healthz();
    ApiResponse Metrics();
    void TestPath(const Target& target, const Reply& reply);
    void CollectGarbage(const Reply& reply);
    void Backup(const ApiRequest& request, const Reply& reply);
    ApiResponse Health();
    // Submissions that come in together are committed together, so that they share a sync.
    void Submit(const ApiRequest& request, const Reply& reply);
    void CommitSubmissions();
    ApiResponse List(const Target& target);
    ApiResponse Show(std::int64_t task);
    // api_explain.cpp
    ApiResponse Explain(std::int64_t task);
    ApiResponse GiveOrder(const ApiRequest& request, const TaskRow& task, StateEvent order);
    // Of a task that is not there: it may have been deleted already.
    std::optional<ApiResponse> DeletedAlready(std::int64_t task);
    ApiResponse DrainOrGoOn(const ApiRequest& request, bool drain);
    ApiResponse Shutdown(const ApiRequest& request);
    void Events(std::int64_t task, const Target& target, const Reply& reply);
    // Nothing when there are no events yet.
    std::optional<ApiResponse> EventsNow(std::int64_t task, std::int64_t after, bool evenIfNone);
    void AnswerWait(std::list<std::unique_ptr<Wait>>::iterator wait);

    boost::asio::io_context& m_io;
    Store& m_store;
    ApiHost& m_host;
    const std::string m_token;
    std::list<std::unique_ptr<Wait>> m_waits;
    std::vector<NewTask> m_submitted;    // not committed yet
    std::vector<Reply> m_submitReplies;  // one for each
    bool m_noMoreWaits = false;
};

}  // namespace rq::engine
