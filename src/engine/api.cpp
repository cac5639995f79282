#include "engine/api.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <nlohmann/json.hpp>

#include "engine/json.h"
#include "engine/modest_json.h"
#include "engine/version.h"
#include "records/task_codes.h"

namespace rq::engine {

namespace {

using nlohmann::json;

constexpr std::int64_t kMaxWait_ms = 30'000;
constexpr std::int64_t kMaxEvents = 1000;
constexpr std::size_t kMaxWaits = 512;

ApiResponse StoreError(const Error& error) {
    return MakeError(500, "store", error.message);
}

ApiResponse FieldFault(const FieldError& error) {
    return MakeError(400, error.code, error.message, error.field);
}

ApiResponse NotAllowed(const std::string& allow) {
    ApiResponse response = MakeError(405, "bad-method", "this path takes only " + allow);
    response.headers.emplace_back("Allow", allow);
    return response;
}

ApiResponse UnknownPath() {
    return MakeError(404, "unknown-path", "no such path; docs/api.md has them all");
}

bool IsGet(const ApiRequest& request) {
    return request.method == "GET" || request.method == "HEAD";
}

bool IsJsonType(const std::string& contentType) {
    const auto end = std::min(contentType.find(';'), contentType.size());
    std::string type = contentType.substr(0, end);
    type.erase(type.find_last_not_of(" \t") + 1);
    std::transform(type.begin(), type.end(), type.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return type.empty() || type == "application/json";
}

// What stands behind a task's ID in the path of an order.
std::optional<StateEvent> OrderOf(const std::string& action) {
    for (const StateEvent order :
         {StateEvent::Cancel, StateEvent::Suspend, StateEvent::Resume, StateEvent::Finish, StateEvent::Update,
          StateEvent::Retry, StateEvent::Prioritise}) {
        if (NameOf(order) == action) return order;
    }
    return std::nullopt;
}

// The query parameters that a path takes; nothing for a path that is unknown.
std::optional<std::vector<std::string_view>> ParametersOf(const Target& target) {
    const auto& path = target.path;
    const bool isTasks = path[2] == "tasks";
    if (isTasks && path.size() == 3) return std::vector<std::string_view>{"state", "limit", "after"};
    if (isTasks && path.size() == 5 && path[4] == "events")
        return std::vector<std::string_view>{"after", "wait_ms"};
    if (path[2] == "path" && path.size() == 3) return std::vector<std::string_view>{"path"};
    const bool isKnown =
        isTasks ? path.size() <= 5
                : path.size() == 3 && (path[2] == "health" || path[2] == "shutdown" || path[2] == "gc" ||
                                       path[2] == "backup" || path[2] == "drain" || path[2] == "undrain");
    return isKnown ? std::optional(std::vector<std::string_view>{}) : std::nullopt;
}

}  // namespace

Api::Api(boost::asio::io_context& io, Store& store, ApiHost& host, std::string token)
    : m_io(io), m_store(store), m_host(host), m_token(std::move(token)) {}

Api::~Api() = default;

std::optional<ApiResponse> Api::Refuse(const ApiRequest& request) const {
    const bool isOpen = m_host.IsOpenToOthers();
    if (!IsLocalHost(request.host) && !(isOpen && IsAddressHost(request.host)))
        return MakeError(403, "bad-host",
                         std::string("the Host header must name 127.0.0.1, localhost or [::1]") +
                             (isOpen ? ", or be an address" : ""));
    if (!HasToken(request.authorization, m_token)) {
        ApiResponse response = MakeError(
            401, "no-token", "the token is missing or wrong; it is in engine.token in the data folder");
        response.headers.emplace_back("WWW-Authenticate", "Bearer");
        return response;
    }
    return std::nullopt;
}

void Api::Handle(const ApiRequest& request, const Reply& reply) {
    if (auto refusal = Refuse(request)) {
        reply(std::move(*refusal));
        return;
    }
    const auto target = ParseTarget(request.target);
    if (!target) {
        reply(FieldFault(target.error()));
        return;
    }
    if (!IsModestJson(request.body)) {
        reply(MakeError(400, "bad-json", "the body has over 100000 values, or is nested deeper than 32"));
        return;
    }
    if (target->path.size() == 1) {
        RouteProbe(request, *target, reply);
        return;
    }
    if (target->path.size() < 3 || target->path[0] != "api" || target->path[1] != "v1") {
        reply(UnknownPath());
        return;
    }
    const auto known = ParametersOf(*target);
    if (const auto fault = known ? UnknownParameter(*target, *known) : std::nullopt) {
        reply(FieldFault(*fault));
        return;
    }
    Route(request, *target, reply);
}

void Api::Route(const ApiRequest& request, const Target& target, const Reply& reply) {
    const std::string& what = target.path[2];
    const std::size_t depth = target.path.size();
    if (what == "health" && depth == 3) {
        reply(IsGet(request) ? Health() : NotAllowed("GET, HEAD"));
    } else if (what == "shutdown" && depth == 3) {
        reply(request.method == "POST" ? Shutdown(request) : NotAllowed("POST"));
    } else if ((what == "drain" || what == "undrain") && depth == 3) {
        reply(request.method == "POST" ? DrainOrGoOn(request, what == "drain") : NotAllowed("POST"));
    } else if (what == "gc" && depth == 3) {
        if (request.method == "POST")
            CollectGarbage(reply);
        else
            reply(NotAllowed("POST"));
    } else if (what == "backup" && depth == 3) {
        if (request.method != "POST")
            reply(NotAllowed("POST"));
        else if (!IsJsonType(request.contentType))
            reply(MakeError(415, "bad-type", "the body must be application/json"));
        else
            Backup(request, reply);
    } else if (what == "path" && depth == 3) {
        if (IsGet(request))
            TestPath(target, reply);
        else
            reply(NotAllowed("GET, HEAD"));
    } else if (auto synced = what == "tasks" ? m_store.Sync() : Result<void>(); !synced) {
        reply(StoreError(synced.error()));  // what is shown has to last
    } else if (what == "tasks" && depth == 3) {
        if (IsGet(request))
            reply(List(target));
        else
            request.method == "POST" ? Submit(request, reply) : reply(NotAllowed("GET, HEAD, POST"));
    } else if (what == "tasks" && depth <= 5) {
        RouteTask(request, target, reply);
    } else {
        reply(UnknownPath());
    }
}

void Api::RouteProbe(const ApiRequest& request, const Target& target, const Reply& reply) {
    const bool isMetrics = target.path[0] == "metrics";
    if (!isMetrics && target.path[0] != "healthz") {
        reply(UnknownPath());
    } else if (const auto fault = UnknownParameter(target, {})) {
        reply(FieldFault(*fault));
    } else if (!IsGet(request)) {
        reply(NotAllowed("GET, HEAD"));
    } else {
        reply(isMetrics ? Metrics() : Healthz());
    }
}

void Api::RouteTask(const ApiRequest& request, const Target& target, const Reply& reply) {
    const std::string action = target.path.size() == 5 ? target.path[4] : "";
    auto order = OrderOf(action);
    if (!action.empty() && !order && action != "events" && action != "explain") {
        reply(UnknownPath());
        return;
    }
    if (action.empty() && request.method == "DELETE") order = StateEvent::Delete;
    if (order && order != StateEvent::Delete ? request.method != "POST" : !order && !IsGet(request)) {
        reply(NotAllowed(order ? "POST" : action.empty() ? "GET, HEAD, DELETE" : "GET, HEAD"));
        return;
    }
    const auto key = ParseTaskId(target.path[3]);
    auto task = key ? m_store.Task(*key) : Result<std::optional<TaskRow>>(std::optional<TaskRow>{});
    if (!task) {
        reply(StoreError(task.error()));
    } else if (!*task) {
        auto deleted = key && order == StateEvent::Delete ? DeletedAlready(*key) : std::nullopt;
        reply(deleted ? std::move(*deleted)
                      : MakeError(404, "unknown-task",
                                  "no task has the ID \"" + target.path[3].substr(0, 60) + "\""));
    } else if (order) {
        reply(GiveOrder(request, **task, *order));
    } else if (action == "explain") {
        reply(Explain(*key));
    } else if (action == "events") {
        Events(*key, target, reply);
    } else {
        reply(Show(*key));
    }
}

json Api::Short(TaskRow task) const {
    if (task.state == TaskState::Queued && !task.reason) task.reason = m_host.HoldReason(task.type);
    return TaskJson(task);
}

ApiResponse Api::Health() {
    const auto counts = m_store.CountByState();
    if (!counts) return StoreError(counts.error());
    const auto facts = m_host.GetFacts();
    const auto stops = m_store.Stops();
    if (!stops) return StoreError(stops.error());
    json stopped = json::array();
    bool drained = false;
    for (const auto& stop : *stops) {
        stopped.push_back(StopJson(stop));
        drained = drained || stop.type == kEveryType;
    }
    json tasks = json::object();
    for (std::size_t i = 0; i < counts->size(); ++i)
        tasks[std::string(NameOf(kTaskStates[i]))] = (*counts)[i];
    json held = json::array();
    for (const auto& [type, reason] : facts.held) {
        const std::string code(CodeOfTaskType(type));
        held.push_back(
            {{"type", type}, {"type_code", code.empty() ? json(nullptr) : json(code)}, {"reason", reason}});
    }
    return MakeResponse(200, {{"status", facts.ending ? "ending" : "ok"},
                              {"version", kVersion},
                              {"pid", facts.processId},
                              {"started", TimeText(facts.started_us)},
                              {"link_port", facts.linkPort},
                              {"http_port", facts.httpPort},
                              {"workers", {{"running", facts.workers}, {"max", facts.maxWorkers}}},
                              {"tasks", tasks},
                              {"held", held},
                              {"node", NodeJson(m_host.GetNodeFacts())},
                              {"drained", drained},
                              {"stopped", stopped},
                              {"log", facts.log}});
}

void Api::Submit(const ApiRequest& request, const Reply& reply) {
    if (!IsJsonType(request.contentType)) {
        reply(MakeError(415, "bad-type", "the body must be application/json"));
        return;
    }
    auto task = ParseSubmission(request.body, m_store.NowTime());
    if (!task) {
        reply(FieldFault(task.error()));
        return;
    }
    if (const auto fault = m_host.Accept(*task)) {
        reply(FieldFault(*fault));
        return;
    }
    m_submitted.push_back(std::move(*task));
    m_submitReplies.push_back(reply);
    if (m_submitted.size() > 1) return;
    // Behind what has been received by now: a request takes one step for its header and one for its body.
    boost::asio::post(m_io, [this] { boost::asio::post(m_io, [this] { CommitSubmissions(); }); });
}

void Api::CommitSubmissions() {
    const auto tasks = std::exchange(m_submitted, {});
    const auto replies = std::exchange(m_submitReplies, {});
    const auto refuse = [&](const ApiResponse& response) {
        for (const auto& reply : replies) reply(response);
    };
    if (m_host.GetFacts().ending)
        return refuse(MakeError(503, "ending", "the engine is ending and takes no new tasks"));
    if (const auto trouble = m_host.SubmitTrouble()) return refuse(MakeError(500, "store", *trouble));
    const auto rows = m_store.SubmitAll(tasks);
    if (!rows) return refuse(StoreError(rows.error()));
    m_host.OnSubmitted();
    for (std::size_t i = 0; i < rows->size(); ++i) {
        const auto& [result, row] = (*rows)[i];
        if (result == SubmitResult::KeyTaken) {
            replies[i](MakeError(409, "key-taken",
                                 "key: " + row.id +
                                     " has this key, with another type or text; "
                                     "give another key",
                                 "key"));
            continue;
        }
        const bool isNew = result == SubmitResult::New;
        json document = {{"id", row.id}, {"state", NameOf(row.state)}, {"repeated", !isNew}};
        if (!m_host.Paths().IsEmpty()) {
            std::vector<MappedPath> mapped;
            m_host.Paths().Apply(tasks[i].text, &mapped);
            document["paths"] = MappedPathsJson(mapped);
        }
        ApiResponse response = MakeResponse(isNew ? 201 : 200, document);
        response.headers.emplace_back("Location", "/api/v1/tasks/" + row.id);
        replies[i](std::move(response));
    }
}

ApiResponse Api::List(const Target& target) {
    auto query = ParseListQuery(target);
    if (!query) return FieldFault(query.error());
    const auto limit = static_cast<std::size_t>(query->limit);
    ++query->limit;  // one more says whether there is a next page
    const auto rows = m_store.Tasks(*query);
    if (!rows) return StoreError(rows.error());
    json tasks = json::array();
    for (std::size_t i = 0; i < std::min(limit, rows->size()); ++i) tasks.push_back(Short((*rows)[i]));
    const json next = rows->size() > limit ? json((*rows)[limit - 1].id) : json(nullptr);
    return MakeResponse(200, {{"tasks", tasks}, {"next", next}});
}

ApiResponse Api::Show(std::int64_t task) {
    auto details = m_store.Details(task);
    if (!details) return StoreError(details.error());
    if (!*details) return MakeError(404, "unknown-task", "no task has this ID");
    for (auto& attempt : (*details)->attempts) m_host.FindTraces(attempt);
    json document = DetailsJson(**details);
    document.update(Short((*details)->task));
    document["waits"] = json::array();
    for (const auto& reason : m_host.WhyWaits((*details)->task))
        document["waits"].push_back(WaitJson(reason));
    return MakeResponse(200, document);
}

ApiResponse Api::Shutdown(const ApiRequest& request) {
    const auto cancel = ParseShutdown(request.body);
    if (!cancel) return MakeError(400, cancel.error().code, cancel.error().message, cancel.error().field);
    m_host.RequestEndFromApi(*cancel);
    return MakeResponse(202, {{"status", "ending"}, {"cancel", *cancel}});
}

// ---- events ----

std::optional<ApiResponse> Api::EventsNow(std::int64_t task, std::int64_t after, bool evenIfNone) {
    if (auto synced = m_store.Sync(); !synced) return StoreError(synced.error());
    const auto events = m_store.Events(task, after, kMaxEvents);
    if (!events) return StoreError(events.error());
    if (events->empty() && !evenIfNone) return std::nullopt;
    const auto row = m_store.Task(task);
    if (!row) return StoreError(row.error());
    json list = json::array();
    for (const auto& event : *events) list.push_back(EventJson(event));
    return MakeResponse(200, {{"events", list},
                              {"last", events->empty() ? after : events->back().key},
                              {"task", *row ? Short(**row) : json(nullptr)}});
}

void Api::Events(std::int64_t task, const Target& target, const Reply& reply) {
    const auto after = ParseNumber(target, "after", 0, std::int64_t{1} << 53, 0);
    const auto wait_ms = ParseNumber(target, "wait_ms", 0, kMaxWait_ms, 0);
    if (!after || !wait_ms) {
        reply(FieldFault(!after ? after.error() : wait_ms.error()));
        return;
    }
    if (auto response = EventsNow(task, *after, *wait_ms == 0 || m_noMoreWaits)) {
        reply(std::move(*response));
        return;
    }
    // Who gave up is not noticed before the end of its wait.
    if (m_waits.size() == kMaxWaits) AnswerWait(m_waits.begin());
    m_waits.push_back(std::make_unique<Wait>(m_io));
    const auto wait = std::prev(m_waits.end());
    (*wait)->task = task;
    (*wait)->after = *after;
    (*wait)->reply = reply;
    (*wait)->timer.expires_after(std::chrono::milliseconds(*wait_ms));
    // An answered wait is gone by the time of a handler that was already queued: found by its address, not
    // used.
    (*wait)->timer.async_wait([this, raw = wait->get()](const boost::system::error_code& error) {
        if (error) return;
        const auto found = std::find_if(m_waits.begin(), m_waits.end(),
                                        [raw](const auto& other) { return other.get() == raw; });
        if (found != m_waits.end()) AnswerWait(found);
    });
}

void Api::AnswerWait(std::list<std::unique_ptr<Wait>>::iterator wait) {
    const std::unique_ptr<Wait> answered = std::move(*wait);
    m_waits.erase(wait);
    if (auto response = EventsNow(answered->task, answered->after, true))
        answered->reply(std::move(*response));
}

void Api::OnEvents(std::int64_t task) {
    for (auto wait = m_waits.begin(); wait != m_waits.end();) {
        const auto current = wait++;
        if ((*current)->task == task) AnswerWait(current);
    }
}

void Api::EndWaits() {
    m_noMoreWaits = true;
    while (!m_waits.empty()) AnswerWait(m_waits.begin());
}

}  // namespace rq::engine
