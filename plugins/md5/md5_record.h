// The record of one MD5 task: what is to be done, and the results as they are published. Made by the
// analysis, used by one perform call at a time; the worker reads the published results from other threads.
#pragma once

#include <string>
#include <vector>

#include "md5_items.h"
#include "md5_task.h"
#include "rqworker/plugin.hpp"

namespace rq::md5 {

class Md5Record final : public plugin::TaskRecord {
  public:
    explicit Md5Record(Md5Task task)
        : TaskRecord(task.verify ? RQ_TYPE_MD5_VERIFY : RQ_TYPE_MD5_COMPUTE, task.id),
          m_task(std::move(task)),
          m_failures(m_task.IsPlainList() ? m_task.files.size() : 0),
          m_results(m_failures.size()) {
        m_data.size = sizeof m_data;
        m_data.files = m_results.Raw();
        SetTypeData(&m_data);
    }

    const Md5Task& Task() const { return m_task; }
    std::size_t PublishedCount() const { return m_publishedCount; }

    // The result of the item with this index, in the order of the items: its digest (null when it could not
    // be computed), and what went wrong with it (empty when nothing did). Into the list when the task text
    // names every file; otherwise nobody knew how many there would be, and the worker copies it.
    void Publish(const plugin::Host& host, std::size_t index, const Item& item, const task::Md5Digest* digest,
                 std::string failure);

  private:
    Md5Task m_task;
    std::vector<std::string> m_failures;  // the entries' second texts
    plugin::ResultList<RQMd5File> m_results;
    RQMd5Data m_data{};
    std::size_t m_publishedCount = 0;
};

}  // namespace rq::md5
