// How the store's verbs of an attempt are made: for the files that define them. One thread, as in store.h.
#pragma once

#include "engine/store.h"

namespace rq::engine {

template <class Change>
Result<void> Store::ForHolder(const std::string& token, Transaction::Sync sync, Change change) {
    Transaction transaction(*m_database, sync);
    const auto holder = Find(token);
    if (auto ok = Checked(); !ok) return ok;
    if (!holder) return Fail("no attempt has this token");
    change(*holder);
    const auto number = m_recordSeq;
    KeepNumber(holder->attempt);
    auto done = Commit(transaction, holder->task);
    if (!done) m_recordSeq = number;
    return done;
}

}  // namespace rq::engine
