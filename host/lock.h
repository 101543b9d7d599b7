// Process-wide recursive locks, created on first use as named singletons.
//
// Every lock carries a rank.  A thread that holds locks may only take locks of
// the same or a higher rank (or re-take one it already holds); builds with
// ZEL_LOCK_RANK_CHECK keep a per-thread record of the held locks and abort with
// a message naming both locks when that order is broken, because the reverse
// order can deadlock against a thread that follows the rule.
#pragma once

#include <cstdint>

namespace zel::host {

class RecLock;

// Returns the lock of that name, creating it with the rank on first use.  A
// later call with the same name returns the same lock (its first rank stays).
// The locks live for the whole process.
RecLock *CreateSingletonRecLock(const char *name, uint32_t rank);

void Acquire(RecLock *lock);
void Release(RecLock *lock);

const char *LockName(const RecLock *lock);
uint32_t LockRank(const RecLock *lock);

}  // namespace zel::host
