#include <tinyxml.h>

#include <fmt/format.h>

#include "base/result.h"
#include "base/text.h"
#include "util/utility.h"

namespace {

template <class Number>
void SetNumber(TiXmlElement& element, const char* name, Number value) {
    element.SetAttribute(name, fmt::format("{}", value).c_str());
}

const char* KindName(std::uint32_t kind) {
    switch (kind) {
        case 1:
            return "Video";
        case 2:
            return "Audio";
        default:
            return "Other";
    }
}

TiXmlElement MakeStream(const KWOVL::tagAVStream& stream) {
    TiXmlElement element("Stream");
    element.SetAttribute("Kind", KindName(stream.kind));
    element.SetAttribute("Codec", rq::RepairUtf8(stream.codec).c_str());
    SetNumber(element, "Width", stream.width_px);
    SetNumber(element, "Height", stream.height_px);
    SetNumber(element, "FrameRateNumerator", stream.frameRateNumerator);
    SetNumber(element, "FrameRateDenominator", stream.frameRateDenominator);
    SetNumber(element, "SampleRate", stream.sampleRate_Hz);
    SetNumber(element, "Channels", stream.channels);
    SetNumber(element, "BitRate", stream.bitRate_bps);
    SetNumber(element, "Duration", stream.duration_us);
    return element;
}

}  // namespace

namespace KWOVL_UTILITY {

std::int32_t RQAVFormatToXmlString(const KWOVL::tagAVFormat* format, std::wstring& xml) {
    if (format == nullptr) return rq::kStatusFail;
    TiXmlElement root("AVFormat");
    root.SetAttribute("Container", rq::RepairUtf8(format->container).c_str());
    SetNumber(root, "Duration", format->duration_us);
    SetNumber(root, "Size", format->size_bytes);
    SetNumber(root, "BitRate", format->bitRate_bps);
    for (const KWOVL::tagAVStream& stream : format->streams) root.InsertEndChild(MakeStream(stream));
    TiXmlPrinter printer;
    printer.SetStreamPrinting();  // no line ends, no indentation
    root.Accept(&printer);
    xml = rq::WidenUtf8(printer.Str());
    return rq::kStatusOk;
}

}  // namespace KWOVL_UTILITY
