#include "md5_reader.h"

#include "plugin_common/codes.h"

namespace rq::md5 {

Reading FileReader::Read(const std::string& path, const GoOn& goOn) {
    task::InputFile input;
    if (const std::uint32_t code = input.Open(path); code != 0)
        return {std::nullopt, Failure{code, task::kErrorSourceUnreadable, task::SystemWords(code)}};
    if (!m_md5.Start())
        return {std::nullopt, Failure{0, task::kErrorNoDigest, "MD5 is not available on this system"}};
    return ReadOpened(input, goOn);
}

Reading FileReader::ReadOpened(task::InputFile& input, const GoOn& goOn) {
    const Failure changed{0, task::kErrorSourceChanged, "the file changed while it was read"};
    std::uint64_t read_bytes = 0;
    for (std::size_t got = kBuffer_bytes; got == kBuffer_bytes;) {
        if (!goOn(static_cast<std::int64_t>(read_bytes))) return {};
        if (const std::uint32_t code = input.Read(m_buffer.get(), kBuffer_bytes, got); code != 0)
            return {std::nullopt, Failure{code, task::kErrorSourceUnreadable, task::SystemWords(code)}};
        read_bytes += got;
        // A file that grows as fast as it is read would never end.
        if (read_bytes > input.Size()) return {std::nullopt, changed};
        if (!m_md5.Add(m_buffer.get(), got))
            return {std::nullopt, Failure{0, task::kErrorNoDigest, "computing the MD5 failed"}};
    }
    if (read_bytes != input.Size() || input.Changed()) return {std::nullopt, changed};
    task::Md5Digest digest{};
    if (!m_md5.Finish(digest))
        return {std::nullopt, Failure{0, task::kErrorNoDigest, "computing the MD5 failed"}};
    return {digest, std::nullopt};
}

}  // namespace rq::md5
