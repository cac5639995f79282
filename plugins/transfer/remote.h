// One file behind a URL: looked at, read, written. Over libcurl (remote_curl.cpp).
// A connection that breaks is made again, and the transfer goes on where it was, or begins anew where the
// other side cannot go on. The plug-in's thread alone; nothing here has a thread that outlives a call.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "copy_stream.h"
#include "credentials.h"
#include "failure.h"

namespace rq::transfer {

struct RemoteFacts {
    bool isThere = false;
    std::int64_t size_bytes = -1;  // -1: the other side does not say
};

// Without anything new, so often, with a longer pause before each: 1 s, 2 s, 4 s.
constexpr int kTries = 4;

class Remote {
  public:
    struct Settings {
        std::string url;                                 // that url.h takes
        Credential credential;                           // its host is not looked at any more
        bool isSource = false;                           // whose code a failure has
        RateLimit* limit = nullptr;                      // not null
        std::function<bool(std::uint64_t done)> goOn{};  // called often; false stops
        std::chrono::milliseconds firstPause{1000};
    };
    explicit Remote(Settings settings);
    ~Remote();
    Remote(const Remote&) = delete;
    Remote& operator=(const Remote&) = delete;

    // That nothing is there is no failure.
    Problem Look(RemoteFacts& facts);

    struct Sink {
        std::function<void()> begin;  // before byte 0; again when the other side cannot go on
        // In order; a code of the system ends it.
        std::function<std::uint32_t(std::uint64_t offset_bytes, const void* bytes, std::size_t count)> write;
        std::uint32_t code = 0;  // what `write` gave, when that ended it: the failure then has no words
    };
    Problem Download(Sink& sink, std::uint64_t& size_bytes);

    // The whole of it, `size_bytes`: to a name of its own beside the URL's with ftp, to the URL itself with
    // http, which then takes it as a whole or not at all. With `pass` every byte once, in order.
    struct Supply {
        task::InputFile& file;
        std::function<bool(const void* bytes, std::size_t count)> pass;
        std::uint32_t code = 0;  // of the system, when reading failed: the failure then has no words
    };
    Problem Upload(Supply& supply, bool overwrite);
    // What was uploaded, under whatever name it has.
    Problem ReadBack(Sink& sink, std::uint64_t& size_bytes);
    // Gives it the URL's name. With ftp a file that is there is looked for right before, unless `overwrite`.
    Problem Publish(bool overwrite);
    // Removes what has not got its name; but not what may be the only one that is left.
    void Discard();

  private:
    struct Curl;
    Problem LookAt(const std::string& url, RemoteFacts& facts);
    Problem GiveName();
    Problem Replace();
    static std::vector<std::string> Rename(const std::string& from, const std::string& to);
    int Order(const std::vector<std::string>& commands);  // the library's code
    Failure NotNamed(int code) const;
    void TakeTime();
    Problem Get(const std::string& url, Sink& sink, std::uint64_t& size_bytes);
    std::unique_ptr<Curl> m_curl;
    Settings m_settings;
    std::chrono::steady_clock::time_point m_namingEnd;
    std::string m_temporary;  // URL; empty: there is none
};

}  // namespace rq::transfer
