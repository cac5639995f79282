#include "engine/volume_watch.h"

#include <filesystem>
#include <thread>

#include "base/paths.h"
#include "base/sync.h"
#include "engine/retry.h"

namespace rq::engine {

namespace {

constexpr std::uint64_t kMiB = 1024 * 1024;
constexpr const char* kNotLooked = "it has not been looked at yet";

}  // namespace

struct VolumeWatch::Watched {
    VolumeSettings settings;
    Signal signal;  // and its mutex over what follows
    VolumeState state;
    bool stop = false;
    bool looking = false;
    bool looked = false;
    SteadyTime since;  // of the look that is under way
    std::thread thread;
};

VolumeState LookAt(const VolumeSettings& volume) {
    namespace fs = std::filesystem;
    VolumeState state;
    state.path = volume.path;
    state.floor_bytes = volume.free_MiB * kMiB;
    std::error_code error;
    const fs::path path = PathFromUtf8(volume.path);
    if (!fs::is_directory(path, error)) {
        state.away = volume.path + (error ? " cannot be reached: " + error.message() : " is no folder");
        if (error == std::errc::no_such_file_or_directory) state.away = volume.path + " is missing";
        return state;
    }
    if (!volume.marker.empty() && !fs::exists(path / PathFromUtf8(volume.marker), error)) {
        state.away = "its marker " + Utf8FromPath(path / PathFromUtf8(volume.marker)) +
                     " is missing: another disk, or none, is mounted there";
        return state;
    }
    const auto space = fs::space(path, error);
    if (error) {
        state.away = volume.path + ": its free space cannot be read: " + error.message();
        return state;
    }
    state.size_bytes = space.capacity;
    state.free_bytes = space.available;
    return state;
}

VolumeWatch::VolumeWatch(const NodeLimits& limits) : m_limits(limits) {
    for (const auto& [name, settings] : m_limits.volumes) {
        auto watched = std::make_shared<Watched>();
        watched->settings = settings;
        watched->state.path = settings.path;
        watched->state.floor_bytes = settings.free_MiB * kMiB;
        watched->state.away = kNotLooked;
        watched->state.unknown = true;
        watched->looking = true;
        watched->since = SystemClock().Steady();
        m_volumes[name] = watched;
        watched->thread = std::thread([watched, interval = m_limits.volumeInterval] {
            for (;;) {
                VolumeState found = LookAt(watched->settings);
                Signal::Hold hold(watched->signal);
                watched->state = std::move(found);
                watched->looking = false;
                watched->looked = true;
                if (!watched->stop) watched->signal.WaitFor(hold, interval);
                if (watched->stop) return;
                watched->looking = true;
                watched->since = SystemClock().Steady();
            }
        });
    }
}

VolumeWatch::~VolumeWatch() {
    for (auto& [name, watched] : m_volumes) {
        bool hangs = false;
        {
            Signal::Hold hold(watched->signal);
            watched->stop = true;
            hangs = watched->looking;
            watched->signal.Notify(hold);
        }
        // It has its share of what it touches, and ends when the system answers.
        if (hangs)
            watched->thread.detach();
        else
            watched->thread.join();
    }
}

VolumeStates VolumeWatch::States() const {
    VolumeStates states;
    const auto now = SystemClock().Steady();
    for (const auto& [name, watched] : m_volumes) {
        const Signal::Hold hold(watched->signal);
        VolumeState& state = states[name] = watched->state;
        if (watched->looking && now - watched->since >= m_limits.volumePatience) {
            state.away =
                watched->settings.path + " has not answered for " + DurationText(m_limits.volumePatience);
            state.unknown = false;
            state.size_bytes = state.free_bytes = 0;
        }
    }
    return states;
}

bool VolumeWatch::HasLooked() const {
    const auto now = SystemClock().Steady();
    for (const auto& [name, watched] : m_volumes) {
        const Signal::Hold hold(watched->signal);
        if (!watched->looked && now - watched->since < m_limits.volumePatience) return false;
    }
    return true;
}

}  // namespace rq::engine
