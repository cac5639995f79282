// A chain of FFmpeg filters with one end where frames come in and one where they leave. Made anew when the
// source changes what its frames are.
#pragma once

#include <functional>
#include <string>

#include "av.h"
#include "failure.h"

namespace rq::transcode {

class Filter {
  public:
    // `in` describes the frames that come in (arguments of the filter "buffer" or "abuffer"), `chain` what is
    // done to them. FFmpeg's code, 0 for success.
    int Build(bool isVideo, const std::string& in, const std::string& chain);
    bool IsBuilt() const { return m_graph != nullptr; }

    // A frame in (null: the end), and every frame that comes out of it.
    using OnFrame = std::function<Problem(AVFrame&)>;
    // `code` is FFmpeg's when it, not onFrame, failed.
    Problem Pass(AVFrame* frame, const OnFrame& onFrame, int& code);

  private:
    Graph m_graph;
    AVFilterContext* m_in = nullptr;
    AVFilterContext* m_out = nullptr;
    Frame m_frame{av_frame_alloc()};
};

}  // namespace rq::transcode
