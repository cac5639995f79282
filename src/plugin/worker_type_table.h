// WorkerTypeTable: which plug-in library serves which worker type, read from "RQWorkerConfig.xml" in the
// folder of the worker's own executable.
//
// A short-lived object: the runner makes one while it loads its plug-in, asks one question and lets it go.
// The file is read again at every lookup. One thread at a time.
//
// The file: one root element of any name; under it WORKER elements, each with TYPE (a decimal number) and
// PATH (relative to the module directory). Names are compared without regard to case; everything else is
// skipped. What its forms mean:
//   a WORKER without TYPE        has the type of the WORKER before it; the first one in the file has type 0
//   a WORKER without PATH, or a PATH without text: an empty path
//   several TYPE or PATH in one WORKER, several WORKER of one type: the last one wins
//   blanks around a text are dropped, several in a row are one; a comment before a text does not hide it
//   PATH bytes that are not UTF-8: GBK, and what is not GBK either becomes U+FFFD
//   on Windows the folder of a PATH ends at its last backslash; slashes alone do not make one
//   elements nested deeper than kMaxTableNesting, more than kMaxTableSize_bytes, or memory that does not
//   suffice: the file counts as one that does not parse; a second line in the log then says why
#pragma once

#include <cstdint>
#include <string>

#include "base/text.h"
#include "util/type_table_file.h"

namespace rq {

class WorkerTypeTable {
  public:
    WorkerTypeTable();  // the executable's folder
    // `moduleDirectory` ends with a separator.
    explicit WorkerTypeTable(WideText moduleDirectory);

    // True when the file was read to its end, also when it holds no WORKER. Logs why it was not.
    bool LoadConfig();

    // Reads the file, then looks `type` up. False, with the reason in the log and `path` left alone, when
    // there is none.
    bool GetWorkerDllPath(std::int32_t type, WideText& path);

  private:
    const WideText m_moduleDirectory;
    WorkerTypeEntries m_entries;  // what the file said at the last successful read
};

}  // namespace rq
