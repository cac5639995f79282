// The type table's file, read with TinyXML: by the worker, and by the engine, which looks whether a worker
// could start. What its forms mean stands in plugin/worker_type_table.h.
//
// The root's children are parsed one after the other: a table of 100 MB of short entries would otherwise take
// twenty times its size in memory. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "base/text.h"

namespace rq {

inline constexpr std::size_t kMaxTableNesting = 1000;
inline constexpr std::size_t kMaxTableSize_bytes = 512u * 1024u * 1024u;

struct WorkerTypeEntry {
    std::int32_t type = 0;
    WideText path;  // relative to the module directory
};

using WorkerTypeEntries = std::map<std::int32_t, WorkerTypeEntry>;

struct TypeTableReading {
    enum class State { Read, NotParsed, NoElement } state = State::NotParsed;
    WorkerTypeEntries entries;
    std::string problem;  // when not parsed: one line
};

// `name` is UTF-8. Nothing is thrown: memory that does not suffice is a problem like any other.
TypeTableReading ReadTypeTable(const std::string& name);

}  // namespace rq
