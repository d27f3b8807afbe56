// The JSON lock report: how the records of a lock session are laid out in it.
//
// Numbers are written as signed 32-bit values (wider ones are cut to their low 32 bits) but for
// those of "ownerLookups", which are whole; times in whole seconds, hashes as unsigned decimal
// text. Events may still be filling the records while they are written: each is read under its own
// mutex.
#pragma once

#include <map>
#include <string_view>

#include "agent/reportOutcome.h"
#include "locks/lockStore.h"
#include "support/jsonWriter.h"

namespace agent {

// The owners of all selected locks merged by name: counts and times add up, stack traces are merged
// by hash; one known to both carries its true hash.
blockingThreadBeans mergeBlockingThreads(const std::map<std::string_view, topLockBean*>& topLocks);

// Members of the report's root, in this order.
void writeSession(support::jsonWriter& json, const LockSessionConfig& config);
// One member of "lockmap": the lock under its name. Returns how many threads it has.
std::size_t writeLock(support::jsonWriter& json, lockBean& lock, std::int32_t graphSize);
// "stacktracemap": every stack hash met, with an empty text.
void writeStackHashes(support::jsonWriter& json, const lockStore& store);
// "blockingThreads".
void writeBlockingThreads(support::jsonWriter& json, const blockingThreadBeans& owners);
// "ownerLookups": of what the owners are a sample. Only where lookups of them are limited. Returns
// what it has written.
ownerLookupCounts writeOwnerLookups(support::jsonWriter& json, const lockStore& store,
                                    std::int32_t perSecond);

}  // namespace agent
