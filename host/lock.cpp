#include "host/lock.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace zel::host {

class RecLock {
 public:
  std::recursive_mutex mutex;
  char name[64] = {};
  uint32_t rank = 0;
  bool used = false;
};

namespace {

// A handful of named locks exist in the whole library; a fixed pool avoids
// any allocation when a lock is first used.
constexpr int kMaxLocks = 16;

struct Registry {
  std::mutex mutex;
  RecLock locks[kMaxLocks];
};

Registry &TheRegistry() {
  static Registry registry;
  return registry;
}

[[noreturn]] void Fatal(const char *what, const char *name) {
  std::fprintf(stderr, "lock \"%s\": %s\n", name, what);
  std::abort();
}

#if defined(ZEL_LOCK_RANK_CHECK) && ZEL_LOCK_RANK_CHECK
// The locks this thread holds, in the order it took them, with the depth of
// recursive acquisition of each.
struct Held {
  const RecLock *lock;
  uint32_t depth;
};
constexpr int kMaxHeld = 16;
thread_local Held t_held[kMaxHeld];
thread_local int t_numHeld = 0;

Held *FindHeld(const RecLock *lock) {
  for (int i = 0; i < t_numHeld; ++i) {
    if (t_held[i].lock == lock) {
      return &t_held[i];
    }
  }
  return nullptr;
}

void NoteAcquire(const RecLock *lock) {
  if (Held *held = FindHeld(lock)) {
    ++held->depth;  // re-taking a held recursive lock is always fine
    return;
  }
  for (int i = 0; i < t_numHeld; ++i) {
    if (t_held[i].lock->rank > lock->rank) {
      std::fprintf(stderr,
                   "lock rank violation: taking \"%s\" (rank 0x%08X) while holding \"%s\" "
                   "(rank 0x%08X)\n",
                   lock->name, lock->rank, t_held[i].lock->name, t_held[i].lock->rank);
      std::abort();
    }
  }
  if (t_numHeld == kMaxHeld) {
    Fatal("too many locks held by one thread", lock->name);
  }
  t_held[t_numHeld++] = Held{lock, 1};
}

void NoteRelease(const RecLock *lock) {
  Held *held = FindHeld(lock);
  if (held == nullptr) {
    Fatal("released by a thread that does not hold it", lock->name);
  }
  if (--held->depth == 0) {
    // Locks may be released in any order: close the gap.
    for (Held *h = held; h + 1 < t_held + t_numHeld; ++h) {
      *h = *(h + 1);
    }
    --t_numHeld;
  }
}
#else
void NoteAcquire(const RecLock *) {}
void NoteRelease(const RecLock *) {}
#endif

}  // namespace

RecLock *CreateSingletonRecLock(const char *name, uint32_t rank) {
  Registry &registry = TheRegistry();
  std::lock_guard<std::mutex> guard(registry.mutex);
  for (RecLock &lock : registry.locks) {
    if (lock.used && std::strncmp(lock.name, name, sizeof lock.name) == 0) {
      return &lock;
    }
  }
  if (std::strlen(name) >= sizeof registry.locks[0].name) {
    Fatal("name too long", name);
  }
  for (RecLock &lock : registry.locks) {
    if (!lock.used) {
      std::snprintf(lock.name, sizeof lock.name, "%s", name);
      lock.rank = rank;
      lock.used = true;
      return &lock;
    }
  }
  Fatal("no room for another named lock", name);
}

void Acquire(RecLock *lock) {
  NoteAcquire(lock);
  lock->mutex.lock();
}

void Release(RecLock *lock) {
  NoteRelease(lock);
  lock->mutex.unlock();
}

const char *LockName(const RecLock *lock) { return lock->name; }
uint32_t LockRank(const RecLock *lock) { return lock->rank; }

}  // namespace zel::host
