// The digests of an item's files, beside its target: written as the files are done, published at the end.
// Dropped otherwise. Not more than a buffer of it is in memory. The perform call's thread.
#pragma once

#include <deque>
#include <string>
#include <vector>

#include "copy_stream.h"
#include "failure.h"
#include "plugin_common/publish.h"

namespace rq::transfer {

class Manifest {
  public:
    // What goes wrong is said by Publish.
    void Begin(const std::string& target, bool md5, bool sha256, bool overwrite,
               task::Publication::Cleaning cleaning);
    void Add(const std::string& name, const Digests& digests);
    // Waits for the disk.
    std::vector<Failure> Publish();

  private:
    struct File {
        std::string path;
        bool isMd5 = false;
        task::Publication publication;
        std::string buffer;
        std::uint64_t size_bytes = 0;
        Problem problem;
    };
    static void Write(File& file);

    std::deque<File> m_files;
};

}  // namespace rq::transfer
