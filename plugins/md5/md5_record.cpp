#include "md5_record.h"

#include <algorithm>

namespace rq::md5 {

void Md5Record::Publish(const task::Md5Digest* digest, std::string failure) {
    const std::size_t index = m_results.Count();
    if (index >= m_failures.size()) return;
    const TaskFile& file = m_task.files[index];
    m_failures[index] = std::move(failure);

    RQMd5File entry{};
    entry.first = plugin::Borrow(file.path);
    entry.second = plugin::Borrow(m_failures[index]);
    if (file.expected) {
        entry.has |= RQ_HAS_FIRST_MD5;
        std::copy(file.expected->begin(), file.expected->end(), entry.firstMd5);
    }
    if (digest != nullptr) {
        // In both places: a text that does not fit the type it was submitted under still shows its digests.
        entry.has |= RQ_HAS_SECOND_MD5 | RQ_HAS_COMPUTED_MD5;
        std::copy(digest->begin(), digest->end(), entry.secondMd5);
        std::copy(digest->begin(), digest->end(), entry.computedMd5);
    }
    m_results.Publish(entry);
}

}  // namespace rq::md5
