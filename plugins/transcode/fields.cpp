#include "fields.h"

#include <numeric>

#include "transcode_task.h"

namespace rq::transcode {
namespace {

constexpr std::string_view kRateHint =
    "give frames per second between 1 and 240, as 25, 23.976 or 30000/1001";

int Number(std::string_view digits) {
    return static_cast<int>(task::NumberOf(digits));
}

std::optional<Rational> RateOf(std::string_view text) {
    if (const std::size_t slash = text.find('/'); slash != std::string_view::npos) {
        const std::string_view above = text.substr(0, slash);
        const std::string_view below = text.substr(slash + 1);
        if (!task::IsDigits(above, 6) || !task::IsDigits(below, 6) || Number(below) == 0) return std::nullopt;
        return Rational{Number(above), Number(below)};
    }
    const std::optional<std::int64_t> thousandths = task::ParseDecimal(text, 3);
    if (!thousandths || *thousandths > 1'000'000) return std::nullopt;
    // The short forms of the rates of NTSC.
    for (const int rate : {24, 30, 60, 120}) {
        const std::int64_t exact = rate * 1'000'000 / 1001;
        if (*thousandths == exact || *thousandths == (exact + 5) / 10 * 10)
            return Rational{rate * 1000, 1001};
    }
    const int common = std::gcd(static_cast<int>(*thousandths), 1000);
    return Rational{static_cast<int>(*thousandths) / common, 1000 / common};
}

}  // namespace

std::optional<int> TypedFields::Whole(std::string_view name, int least, int most) {
    const std::optional<std::int64_t> value = task::TypedFields::Whole(name, least, most);
    if (!value) return std::nullopt;
    return static_cast<int>(*value);
}

std::optional<Rational> TypedFields::FrameRate(std::string_view name) {
    const std::optional<std::string> text = Trimmed(name, kRateHint);
    if (!text) return std::nullopt;
    const std::optional<Rational> rate = RateOf(*text);
    if (rate && rate->numerator >= rate->denominator &&
        static_cast<std::int64_t>(rate->denominator) * 240 >= rate->numerator)
        return rate;
    Refuse(name, "is \"" + *text + "\"; " + std::string(kRateHint));
    return std::nullopt;
}

}  // namespace rq::transcode
