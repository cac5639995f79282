// What the programs of bench/link.sh share: sockets that block, the clock, medians, starting a process. Linux
// only. A failure ends the program with a line: a measurement that went wrong must not look like one.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

// Processes that must not outlive a measurement that failed.
inline std::vector<pid_t>& Children() {
    static std::vector<pid_t> children;
    return children;
}

[[noreturn]] inline void Die(const std::string& what) {
    std::fprintf(stderr, "bench: %s\n", what.c_str());
    for (const pid_t child : Children()) kill(child, SIGKILL);
    std::exit(1);
}
[[noreturn]] inline void DieOfErrno(const std::string& what) {
    Die(what + ": " + std::strerror(errno));
}
inline void Check(bool good, const char* what) {
    if (!good) Die(what);
}

using Time = std::chrono::steady_clock::time_point;
inline Time Now() {
    return std::chrono::steady_clock::now();
}
inline double Seconds(Time from, Time to) {
    return std::chrono::duration<double>(to - from).count();
}

// The value below which that part (0 to 1) of them lies.
inline double Quantile(std::vector<double> values, double part) {
    Check(!values.empty(), "nothing was measured");
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, static_cast<std::size_t>(part * double(values.size())))];
}
inline void PrintMedianAnd99th_us(const std::vector<double>& seconds) {
    std::printf("%.2f %.2f\n", Quantile(seconds, 0.5) * 1e6, Quantile(seconds, 0.99) * 1e6);
}

// The same text for every system: what a task is called, and something around it.
inline std::string TaskId(unsigned number) {
    char text[16];
    std::snprintf(text, sizeof text, "T-%06u", number % 1000000);
    return text;
}
inline std::string TaskText(unsigned number) {
    return "<Task><ID>" + TaskId(number) + "</ID></Task>";
}

inline sockaddr_in Loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}
inline void SetNoDelay(int socket) {
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

// On a port that the system chooses.
inline int Listen(std::uint16_t* port) {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = Loopback(0);
    socklen_t size = sizeof address;
    if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        listen(listener, 16) != 0 || getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0)
        DieOfErrno("listen");
    *port = ntohs(address.sin_port);
    return listener;
}
inline int Accept(int listener) {
    pollfd waiting{listener, POLLIN, 0};
    if (poll(&waiting, 1, 30'000) <= 0) Die("nobody connected for 30 s");
    const int peer = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (peer < 0) DieOfErrno("accept");
    SetNoDelay(peer);
    return peer;
}
inline int Connect(std::uint16_t port) {
    const int peer = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = Loopback(port);
    if (peer < 0 || connect(peer, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        DieOfErrno("connect to port " + std::to_string(port));
    SetNoDelay(peer);
    return peer;
}

inline void WriteAll(int file, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = write(file, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) DieOfErrno("write");
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
}
// Appends what one read gives; false at the end of the stream.
inline bool ReadSome(int file, std::string* to) {
    char bytes[65536];
    for (;;) {
        const ssize_t size = read(file, bytes, sizeof bytes);
        if (size < 0 && errno == EINTR) continue;
        if (size < 0 && errno != ECONNRESET) DieOfErrno("read");
        if (size <= 0) return false;
        to->append(bytes, static_cast<std::size_t>(size));
        return true;
    }
}

// Starts a program; its standard output goes to `output`, or nowhere when that is -1.
inline pid_t Spawn(const std::vector<std::string>& command, int output = -1) {
    std::vector<char*> arguments;
    for (const std::string& text : command) arguments.push_back(const_cast<char*>(text.c_str()));
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    if (output < 0)
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    else
        posix_spawn_file_actions_adddup2(&actions, output, 1);
    pid_t child = 0;
    errno = posix_spawn(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
    if (errno != 0) DieOfErrno("start of " + command[0]);
    posix_spawn_file_actions_destroy(&actions);
    Children().push_back(child);
    return child;
}

}  // namespace bench
