// Host configuration-store client: an embedded store of structured objects.
//
// The store keeps top-level objects, each addressed by three selector strings
// and an instance id (switch objects are "switches", "network_zel", "orn" with
// the switch id).  An object holds typed values under keys, singleton
// sub-objects and lists of sub-object instances.  Objects are read into memory
// with Get or GetInstances, changed there, and written back whole with Set.
//
// Storage: one SQLite database file.  Its path is the environment variable
// ZEL_CONFIGSTORE_PATH, or kDefaultPath when that is unset or empty (its
// directory is created with mode 0700 when missing).  The file is created on
// first use with permissions 0600 and runs in WAL mode with a busy timeout,
// so several processes may use it at once.  Table "objects" holds one row per
// top-level object: (layer, sel1, sel2, sel3, instance, content, origin),
// keyed by the first five columns.  Layer "current" is the stored state;
// layer "desired" is the user-configured state read by
// GetDesiredUserConfigInstances and written by SetDesired or the tool
// zelctl store.  "content" is JSON text, readable with the sqlite3 shell:
//   - a string value is a JSON string, a bool a JSON bool;
//   - int32, uint32, uint16 and int64 values are JSON integers;
//   - binary values are base64 text;
//   - lists of strings and of ints are JSON arrays; SetValueEmptyList gives [];
//   - a singleton sub-object is a nested JSON object;
//   - a list of sub-object instances is an array of JSON objects, each
//     carrying its instance id as the string "key";
//   - every object whose values need a type that JSON cannot show carries
//     "@types": {key: "int32" | "uint32" | "uint16" | "int64" | "binary"}.
//     An integer without a tag is int64.  Hand-written content may omit the
//     tags of strings, bools and lists, and may give them as "string",
//     "bool", "list", "string_list", "int_list".
// Nothing read from the file is trusted: malformed content fails with
// kCorrupt and no object.
//
// Statuses (int; every operation returns one):
//   0  kOk             success
//   1  kInternal       unexpected internal failure
//   2  kBadArgument    null or empty argument, negative length, reserved key,
//                      a sub-object handle where a top-level one is needed
//   3  kTypeMismatch   the value or sub-object under the key has another type
//   4  kOutOfRange     an integer value does not fit the getter's type;
//                      sub-objects nested deeper than 32 levels
//   5  kNoMemory       allocation failed
//   6  kNotFound       the object, instance, sub-object or value does not
//                      exist (also: a sub-object handle that was deleted)
//   7  kStorage        SQLite reported an error
//   8  kBusy           the database stayed locked beyond the busy timeout
//   9  kCorrupt        stored content is not a valid object
//  10  kTransaction    BeginTransaction inside a transaction, Commit or
//                      Cancel outside one
//  11  kConflict       renaming an instance ("key") to an id its list holds
// On failure, pointer and count out-parameters are set to null and 0; value
// out-parameters (numbers, bools) are left as they were.
//
// Integers: the four integer types are stored with their type, and any
// integer getter reads any integer value that fits its own range (a uint32
// value 100 reads as uint16 100); a value outside the range gives
// kOutOfRange, a value of another kind (string, bool, binary, list,
// sub-object) kTypeMismatch.
//
// Ownership:
//   - Objects from Get, CreateObject, GetInstances and
//     GetDesiredUserConfigInstances are released with DestroyConfigStoreObject,
//     which releases every sub-object reached from them.  The arrays of
//     GetInstances, GetDesiredUserConfigInstances and GetSubObjectInstances
//     are freed with free() (after releasing the top-level objects in them).
//   - Sub-objects belong to their top-level object and stay valid (as
//     memory) until it is destroyed; a sub-object that was deleted or
//     replaced answers kNotFound.  Never pass one to DestroyConfigStoreObject.
//   - A top-level object's memory comes from an arena of its own and goes
//     back in one piece when it is destroyed: what a deleted or replaced
//     value or sub-object held stays in use until then, so an object that
//     is rewritten over and over should be destroyed and read again rather
//     than kept.  A thread keeps up to 2 MiB of released memory for the
//     objects it makes next.
//   - Texts from GetValueStr and GenerateInstanceId, bytes from
//     GetValueBinary are freed with free(); string arrays with
//     DestroyStringArrayValue(&array, count).
//
// Transactions: BeginTransaction starts an immediate SQLite transaction on
// the store's connection; Set, SetDesired, Delete and DeleteDesired write
// inside it, or in a transaction of their own when none is open.
// CommitTransaction makes all of it visible to other processes at once;
// CancelTransaction (and DestroyStore of a store with an open transaction)
// discards it.  CreateObject makes an object in memory only; it reaches the
// file with Set.
//
// Threads: a Store, and an object with all its sub-objects, are used by one
// thread at a time; different stores may be used by different threads.
#pragma once

#include <cstdint>

namespace zel::cfgstore {

struct Store;
struct Object;
struct Filter;

inline constexpr int kOk = 0;
inline constexpr int kInternal = 1;
inline constexpr int kBadArgument = 2;
inline constexpr int kTypeMismatch = 3;
inline constexpr int kOutOfRange = 4;
inline constexpr int kNoMemory = 5;
inline constexpr int kNotFound = 6;
inline constexpr int kStorage = 7;
inline constexpr int kBusy = 8;
inline constexpr int kCorrupt = 9;
inline constexpr int kTransaction = 10;
inline constexpr int kConflict = 11;

inline constexpr const char *kPathEnv = "ZEL_CONFIGSTORE_PATH";
inline constexpr const char *kDefaultPath = "/var/lib/zel/configstore.db";
// How long an operation waits for another connection's write lock.
inline constexpr int kBusyTimeoutMs = 10000;

// Store and transactions.  options must be 0.
int GetStore(int options, Store **store);
int DestroyStore(Store *store);
int BeginTransaction(Store *store);
int CommitTransaction(Store *store);
int CancelTransaction(Store *store);

// Top-level objects.
int Get(Store *store, const char *sel1, const char *sel2, const char *sel3, const char *instanceId,
        Object **object);
// content: the initial content, JSON text in the stored form ("{}" for an
// empty object).
int CreateObject(const char *sel1, const char *sel2, const char *sel3, const char *instanceId,
                 const char *content, Object **object);
// origin: the writer's tag ("EXTERNAL"), kept in the row's "origin" column.
int Set(Store *store, Object *object, const char *origin);
int Delete(Store *store, const char *sel1, const char *sel2, const char *sel3,
           const char *instanceId);
int DestroyConfigStoreObject(Object *object);
// Objects matching a three-selector filter, ordered by instance id.
int GetInstances(Store *store, Filter *filter, Object ***objects, int *count);
// The desired layer's objects under the three selectors, ordered by instance
// id; opens a connection of its own.
int GetDesiredUserConfigInstances(const char *sel1, const char *sel2, const char *sel3,
                                  Object ***objects, int *count);
// A new random (version 4) UUID in lower-case text.
int GenerateInstanceId(char **instanceId);

// Filters: three selectors for GetInstances, or a sub-object list name and
// two empty strings for the sub-object operations.  instanceId "" (or null)
// selects every instance.
int CreateFilterSpecObject(const char *sel1, const char *sel2, const char *sel3,
                           const char *instanceId, Filter **filter);
int DestroyFilterSpecObject(Filter *filter);

// Sub-objects.  instanceId null or "" addresses the singleton `name`;
// otherwise the instance of the list `name` whose "key" is instanceId.
// CreateSubObject hands back the existing sub-object when there is one; it
// creates the list when `name` is absent or an empty list.
int GetSubObject(Object *object, const char *name, const char *instanceId, Object **sub);
int CreateSubObject(Object *object, const char *name, const char *instanceId, Object **sub);
int DeleteSubObject(Object *object, const char *name, const char *instanceId);
// With an instance id in the filter only that instance goes; without one the
// whole list goes.
int DeleteSubObjectInstances(Object *object, Filter *filter);
// The array is the caller's (free()); the instances belong to the object.
int GetSubObjectInstances(Object *object, Filter *filter, Object ***subs, int *count);

// Value writers.  A write replaces whatever the key held (a replaced
// sub-object becomes invalid).  In an instance of a sub-object list, "key" is
// the instance id: SetValueStr of "key" renames the instance (kConflict when
// the list holds the new id already); other writes of "key" give kBadArgument.
// The appenders create the list when the key is absent.
int SetValueStr(Object *object, const char *key, const char *value);
int SetValueInt(Object *object, const char *key, int32_t value);
int SetValueUint32(Object *object, const char *key, uint32_t value);
int SetValueUint16(Object *object, const char *key, uint16_t value);
int SetValueLong(Object *object, const char *key, int64_t value);
int SetValueBool(Object *object, const char *key, bool value);
int SetValueBinary(Object *object, const char *key, const void *data, int length);
int SetValueEmptyList(Object *object, const char *key);
int AppendValueString(Object *object, const char *key, const char *value);
int AppendValueInt(Object *object, const char *key, int32_t value);
// Removes a value, a singleton or a list of instances.
int RemoveValue(Object *object, const char *key);

// Value readers.
int GetValueStr(Object *object, const char *key, char **value);
int GetValueInt(Object *object, const char *key, int32_t *value);
int GetValueUint32(Object *object, const char *key, uint32_t *value);
int GetValueUint16(Object *object, const char *key, uint16_t *value);
int GetValueLong(Object *object, const char *key, int64_t *value);
// Writes one byte, 0 or 1.
int GetValueBool(Object *object, const char *key, uint8_t *value);
// A zero-length value gives a non-null one-byte allocation and length 0.
int GetValueBinary(Object *object, const char *key, uint8_t **data, int *length);
// An empty list gives a null array and count 0.
int GetValueStringArray(Object *object, const char *key, char ***array, int *count);
int DestroyStringArrayValue(char ***array, int count);

// --- Beyond the client operations: the desired layer and content export ---

// Writes the object into the desired layer (same rules as Set).
int SetDesired(Store *store, Object *object);
int DeleteDesired(Store *store, const char *sel1, const char *sel2, const char *sel3,
                  const char *instanceId);
// The object's content as stored (JSON text, freed with free()).
int ExportObjectJson(Object *object, char **json);
// The instance id of a top-level object (freed with free()).
int GetObjectInstanceId(Object *object, char **instanceId);
// Process-wide: stores opened from now on are opened read-only.  They never
// create the file or its directory and never change the database; a missing
// file gives kNotFound, a file that is no store of this format kCorrupt, and
// every write kStorage.  For programs that only read.
void UseReadOnly(bool readOnly);

// --- Test seam ---
namespace testing {

// Every operation that can be made to fail.
enum class Op {
  kAny,  // counts every operation below
  kGetStore,
  kBeginTransaction,
  kCommitTransaction,
  kCancelTransaction,
  kGet,
  kCreateObject,
  kSet,
  kDelete,
  kGetInstances,
  kGetDesiredUserConfigInstances,
  kGenerateInstanceId,
  kCreateFilterSpecObject,
  kGetSubObject,
  kCreateSubObject,
  kDeleteSubObject,
  kDeleteSubObjectInstances,
  kGetSubObjectInstances,
  kSetValueStr,
  kSetValueInt,
  kSetValueUint32,
  kSetValueUint16,
  kSetValueLong,
  kSetValueBool,
  kSetValueBinary,
  kSetValueEmptyList,
  kAppendValueString,
  kAppendValueInt,
  kRemoveValue,
  kGetValueStr,
  kGetValueInt,
  kGetValueUint32,
  kGetValueUint16,
  kGetValueLong,
  kGetValueBool,
  kGetValueBinary,
  kGetValueStringArray,
  kSetDesired,
  kDeleteDesired,
};

// Adds a rule: after `skip` further calls of `op` that run normally, the
// next `times` calls (every later call when times < 0) return `status`
// without doing anything.  Rules are checked in the order added and a call
// is counted by rules up to the first one that makes it fail.  The destroy
// operations never fail.
void FailNext(Op op, int status, int skip = 0, int times = 1);
// Removes every rule and resets the call counters.
void ClearFailures();
// Calls of `op` since the last ClearFailures (kAny: of all operations).
uint64_t Calls(Op op);

// Makes GetStore and GetDesiredUserConfigInstances use `path` instead of the
// environment (null restores the environment).  Process-wide.
void UsePath(const char *path);
// Busy timeout in milliseconds for stores opened from now on (negative
// restores kBusyTimeoutMs).
void UseBusyTimeout(int ms);

}  // namespace testing
}  // namespace zel::cfgstore
