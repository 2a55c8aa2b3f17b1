// While there is a batch, setKey() and deleteKey() put what they do into its transactions, and reading looks
// there first. A batch may both remove and add, so its transactions are of the kind that removes, and each
// write looks for room itself: a refused one leaves the batch as it was.

#include "batch.h"

#include "settings_store.h"

#include <orvbase/error_number.h>
#include <orvutils/setmgmt.h>

#include <memory>
#include <utility>

namespace orv::detail {

namespace {

/// What is being written, and by whom.
struct Current {
    std::unique_ptr<OpenBatch> batch;
    const setMgmt::Batch* owner = nullptr;
};

Current& current()
{
    static Current instance;
    return instance;
}

} // namespace

OpenBatch* open_batch()
{
    return current().batch.get();
}

void drop_batch()
{
    current() = {};
}

store::Write* OpenBatch::to_write(store::Environment& environment, Error& error)
{
    if (m_has_failed) {
        error = Error::input_output;
        return nullptr;
    }
    Part& part = &environment == &volatile_settings() ? m_volatile : m_durable;
    if (!part.transaction && part.refusal == Error::none) {
        part.transaction.emplace(environment, store::Write::Kind::removing);
        part.refusal = part.transaction->error();
        if (part.refusal == Error::none)
            part.environment = &environment;
        else
            part.transaction.reset();
    }
    error = part.refusal;
    if (error != Error::none)
        return nullptr;
    return &*part.transaction;
}

store::Transaction* OpenBatch::to_read(const store::Environment& environment)
{
    for (Part* part : {&m_durable, &m_volatile})
        if (part->environment == &environment)
            return &*part->transaction;
    return nullptr;
}

/// One more than their journal keeps tells every reader that it has missed some, whichever they were.
void OpenBatch::note_rewrite(const SettingsKey& key)
{
    if (m_rewrites.size() <= kRewriteJournal.capacity())
        m_rewrites.emplace_back(key.bytes());
}

Error OpenBatch::commit()
{
    if (m_has_failed)
        return Error::input_output;
    // What is durable comes first: if it fails, nothing at all has changed.
    for (Part* part : {&m_durable, &m_volatile})
        if (part->transaction)
            if (const Error error = part->transaction->commit(); error != Error::none)
                return error;
    // What was to be stored is: that values written once more are not told of is no failure of that.
    if (!m_rewrites.empty())
        (void)tell_rewrites(m_rewrites);
    return Error::none;
}

} // namespace orv::detail

namespace orv::setMgmt {

Batch::Batch()
{
    detail::Current& current = detail::current();
    if (current.owner)
        return;
    current.batch = std::make_unique<detail::OpenBatch>();
    current.owner = this;
}

Batch::~Batch()
{
    if (detail::current().owner == this)
        detail::drop_batch();
}

int Batch::commit()
{
    detail::Current& current = detail::current();
    if (current.owner != this)
        return current.owner ? 0 : base::fail(Error::input_output);
    const std::unique_ptr<detail::OpenBatch> batch = std::move(current.batch);
    current.owner = nullptr;
    const Error error = batch->commit();
    return error == Error::none ? 0 : base::fail(error);
}

} // namespace orv::setMgmt
