#include "md5_record.h"

#include <algorithm>

#include "plugin_common/utf8.h"

namespace rq::md5 {

void Md5Record::Publish(const plugin::Host& host, std::size_t index, const Item& item,
                        const task::Md5Digest* digest, std::string failure) {
    RQMd5File entry{};
    entry.size = sizeof entry;
    if (item.expected) {
        entry.has |= RQ_HAS_FIRST_MD5;
        std::copy(item.expected->begin(), item.expected->end(), entry.firstMd5);
    }
    if (digest != nullptr) {
        // In both places: a text that does not fit the type it was submitted under still shows its digests.
        entry.has |= RQ_HAS_SECOND_MD5 | RQ_HAS_COMPUTED_MD5;
        std::copy(digest->begin(), digest->end(), entry.secondMd5);
        std::copy(digest->begin(), digest->end(), entry.computedMd5);
    }
    ++m_publishedCount;
    if (index < m_failures.size()) {
        m_failures[index] = std::move(failure);
        entry.first = plugin::Borrow(m_task.files[index].path);
        entry.second = plugin::Borrow(m_failures[index]);
        m_results.Publish(entry);
        return;
    }
    const std::string path = task::WithoutBadBytes(item.path);  // names in folders may be any bytes
    entry.first = plugin::Borrow(path);
    entry.second = plugin::Borrow(failure);
    host.PublishResult(entry);
}

}  // namespace rq::md5
