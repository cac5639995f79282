#include "fields.h"

#include <algorithm>
#include <numeric>

#include "plugin_common/file.h"
#include "transcode_task.h"

namespace rq::transcode {
namespace {

constexpr std::string_view kPathHint = "give the absolute path of a file";
constexpr std::string_view kSecondsHint = "give seconds, as 12.5, with at most six decimals";
constexpr std::string_view kRateHint =
    "give frames per second between 1 and 240, as 25, 23.976 or 30000/1001";

bool IsDigits(std::string_view text, std::size_t most) {
    return !text.empty() && text.size() <= most &&
           text.find_first_not_of("0123456789") == std::string_view::npos;
}

int NumberOf(std::string_view digits) {
    return std::accumulate(digits.begin(), digits.end(), 0,
                           [](int sum, char c) { return sum * 10 + (c - '0'); });
}

std::string List(std::initializer_list<std::string_view> words) {
    std::string list;
    for (const std::string_view word : words) list += (list.empty() ? "" : ", ") + std::string(word);
    return list;
}

// Digits with or without decimals, in units of 10^-decimals.
std::optional<std::int64_t> Decimal(std::string_view text, std::size_t decimals) {
    const std::size_t point = text.find('.');
    std::string fraction(point == std::string_view::npos ? "0" : text.substr(point + 1));
    const std::string_view whole = text.substr(0, point);
    if (!IsDigits(whole, 6) || !IsDigits(fraction, decimals)) return std::nullopt;
    std::int64_t value = NumberOf(whole);
    fraction.resize(decimals, '0');
    for (std::size_t i = 0; i < decimals; ++i) value *= 10;
    return value + NumberOf(fraction);
}

std::optional<Rational> RateOf(std::string_view text) {
    if (const std::size_t slash = text.find('/'); slash != std::string_view::npos) {
        const std::string_view above = text.substr(0, slash);
        const std::string_view below = text.substr(slash + 1);
        if (!IsDigits(above, 6) || !IsDigits(below, 6) || NumberOf(below) == 0) return std::nullopt;
        return Rational{NumberOf(above), NumberOf(below)};
    }
    const std::optional<std::int64_t> thousandths = Decimal(text, 3);
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

std::optional<std::string> TypedFields::Trimmed(std::string_view name, std::string_view hint) {
    std::optional<std::string> text = m_fields.Optional(name, hint);
    if (!text || m_error.Failed()) return std::nullopt;
    return std::string(task::TrimXml(*text));
}

void TypedFields::Refuse(std::string_view name, std::string_view text) {
    m_error.Set(m_fields.LineOf(name), "<" + std::string(name) + "> " + std::string(text));
}

void TypedFields::Forbid(std::string_view name, std::string_view reason) {
    for (const task::XmlElement& child : m_fields.Element().children)
        if (child.name == name) Refuse(name, reason);
}

std::optional<int> TypedFields::Whole(std::string_view name, int least, int most) {
    const std::string hint =
        "give a whole number between " + std::to_string(least) + " and " + std::to_string(most);
    const std::optional<std::string> text = Trimmed(name, hint);
    if (!text) return std::nullopt;
    const int value = IsDigits(*text, 9) ? NumberOf(*text) : -1;
    if (value >= least && value <= most) return value;
    Refuse(name, "is \"" + *text + "\"; " + hint);
    return std::nullopt;
}

std::optional<std::int64_t> TypedFields::Seconds(std::string_view name) {
    const std::optional<std::string> text = Trimmed(name, kSecondsHint);
    if (!text) return std::nullopt;
    const std::optional<std::int64_t> value = Decimal(*text, 6);
    if (!value) Refuse(name, "is \"" + *text + "\"; " + std::string(kSecondsHint));
    return value;
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

std::optional<std::string> TypedFields::Word(std::string_view name,
                                             std::initializer_list<std::string_view> words) {
    const std::string hint = "give one of: " + List(words);
    std::optional<std::string> text = Trimmed(name, hint);
    if (!text || std::find(words.begin(), words.end(), *text) != words.end()) return text;
    Refuse(name, "is \"" + *text + "\"; " + hint);
    return std::nullopt;
}

std::string TypedFields::RequiredWord(std::string_view name, std::initializer_list<std::string_view> words) {
    m_fields.Required(name, "give one of: " + List(words));
    return Word(name, words).value_or("");
}

std::optional<bool> TypedFields::Flag(std::string_view name) {
    const std::optional<std::string> word = Word(name, {"true", "false"});
    if (!word) return std::nullopt;
    return *word == "true";
}

std::string TypedFields::Path() {
    std::string path = m_fields.Required("Path", kPathHint);
    if (!m_error.Failed() && !task::IsAbsolutePath(path))
        Refuse("Path", "is not an absolute path: \"" + path +
                           "\"; the worker has no folder of its own to start from");
    if (!m_error.Failed() && (path.back() == '/' || path.back() == '\\'))
        Refuse("Path", "names a folder: \"" + path + "\"; " + std::string(kPathHint));
    return path;
}

}  // namespace rq::transcode
