// The record of one MD5 task: what is to be done, and the results as they are published. Made by the
// analysis, used by one perform call at a time; the worker reads the published results from other threads.
#pragma once

#include <string>
#include <vector>

#include "md5_task.h"
#include "rqworker/plugin.hpp"

namespace rq::md5 {

class Md5Record final : public plugin::TaskRecord {
  public:
    explicit Md5Record(Md5Task task)
        : TaskRecord(task.verify ? RQ_TYPE_MD5_VERIFY : RQ_TYPE_MD5_COMPUTE, task.id),
          m_task(std::move(task)),
          m_failures(m_task.files.size()),
          m_results(m_task.files.size()) {
        m_data.size = sizeof m_data;
        m_data.files = m_results.Raw();
        SetTypeData(&m_data);
    }

    const Md5Task& Task() const { return m_task; }
    std::size_t PublishedCount() const { return m_results.Count(); }

    // The result of the next file in the task's order: its digest (null when it could not be computed), and
    // what went wrong with it (empty when nothing did).
    void Publish(const task::Md5Digest* digest, std::string failure);

  private:
    Md5Task m_task;
    std::vector<std::string> m_failures;  // the entries' second texts
    plugin::ResultList<RQMd5File> m_results;
    RQMd5Data m_data{};
};

}  // namespace rq::md5
