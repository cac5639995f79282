#include "app/extract_base_name.h"

#include "base/paths.h"

namespace rq {

WideText ExtractBaseName(std::wstring_view path) {
    const std::size_t separator = FindLastSeparator(path);
    if (separator == std::wstring_view::npos || separator == 0) return {};
    const std::wstring_view name = path.substr(separator + 1);
    const std::size_t dot = name.find(L'.');
    if (dot == std::wstring_view::npos || dot == 0) return {};
    return WideText(name.substr(0, dot));
}

}  // namespace rq
