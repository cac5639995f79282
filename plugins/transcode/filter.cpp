#include "filter.h"

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/mem.h>
}

namespace rq::transcode {

int Filter::Build(bool isVideo, const std::string& in, const std::string& chain) {
    m_graph.reset(avfilter_graph_alloc());
    if (!m_graph || !m_frame) return AVERROR(ENOMEM);
    int code = avfilter_graph_create_filter(&m_in, avfilter_get_by_name(isVideo ? "buffer" : "abuffer"), "in",
                                            in.c_str(), nullptr, m_graph.get());
    if (code < 0) return code;
    code = avfilter_graph_create_filter(&m_out, avfilter_get_by_name(isVideo ? "buffersink" : "abuffersink"),
                                        "out", nullptr, nullptr, m_graph.get());
    if (code < 0) return code;
    // The chain's open ends, seen from outside: its input is fed by "in", its output goes to "out".
    AVFilterInOut* input = avfilter_inout_alloc();
    AVFilterInOut* output = avfilter_inout_alloc();
    if (input == nullptr || output == nullptr) {
        avfilter_inout_free(&input);
        avfilter_inout_free(&output);
        return AVERROR(ENOMEM);
    }
    output->name = av_strdup("in");
    output->filter_ctx = m_in;
    input->name = av_strdup("out");
    input->filter_ctx = m_out;
    code = avfilter_graph_parse_ptr(m_graph.get(), chain.c_str(), &input, &output, nullptr);
    avfilter_inout_free(&input);
    avfilter_inout_free(&output);
    return code < 0 ? code : avfilter_graph_config(m_graph.get(), nullptr);
}

Problem Filter::Pass(AVFrame* frame, const OnFrame& onFrame, int& code) {
    code = av_buffersrc_add_frame_flags(m_in, frame, AV_BUFFERSRC_FLAG_KEEP_REF);
    while (code >= 0) {
        code = av_buffersink_get_frame(m_out, m_frame.get());
        if (code < 0) break;
        Problem problem = onFrame(*m_frame);
        av_frame_unref(m_frame.get());
        if (problem) return problem;
    }
    if (code == AVERROR(EAGAIN) || code == AVERROR_EOF) code = 0;
    return std::nullopt;
}

}  // namespace rq::transcode
