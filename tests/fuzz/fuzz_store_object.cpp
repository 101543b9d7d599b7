// Fuzzes the load of stored switch objects.  The input is the JSON content of up to four switch
// objects, separated by NUL bytes, each stored under its own "uuid" (or a fixed id when it has
// none).  A load must fail or return a blob that decodes with one switch per stored object; such a
// blob is saved and loaded again under the same rule.  The store lives under /dev/shm (or $TMPDIR).
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "host/configstore_client.h"
#include "state/state_testing.h"
#include "zel/configstore.h"
#include "zel/state.h"

namespace {

namespace cs = zel::cfgstore;
constexpr int kMaxObjects = 4;

cs::Store *OpenStore() {
  cs::Store *store = nullptr;
  if (cs::GetStore(0, &store) != cs::kOk) std::abort();
  return store;
}

// Calls fn(store, object) for every stored switch object; returns their count.
template <typename Fn>
int ForEachStored(Fn fn) {
  cs::Store *store = OpenStore();
  cs::Filter *filter = nullptr;
  cs::Object **objects = nullptr;
  int count = 0;
  cs::CreateFilterSpecObject("switches", "network_zel", "orn", "", &filter);
  cs::GetInstances(store, filter, &objects, &count);
  for (int i = 0; i < count; ++i) {
    fn(store, objects[i]);
    cs::DestroyConfigStoreObject(objects[i]);
  }
  std::free(objects);
  cs::DestroyFilterSpecObject(filter);
  cs::DestroyStore(store);
  return count;
}

void ClearStore() {
  ForEachStored([](cs::Store *store, cs::Object *object) {
    char *id = nullptr;
    if (cs::GetObjectInstanceId(object, &id) == cs::kOk) {
      cs::Delete(store, "switches", "network_zel", "orn", id);
    }
    std::free(id);
  });
}

// Stores one object under its "uuid" (the id a save gives it).
void Put(cs::Store *store, const std::string &content, int index) {
  cs::Object *object = nullptr;
  if (cs::CreateObject("switches", "network_zel", "orn", "probe", content.c_str(), &object) !=
      cs::kOk)
    return;
  char *uuid = nullptr;
  std::string id = "obj" + std::to_string(index);
  if (cs::GetValueStr(object, "uuid", &uuid) == cs::kOk && uuid[0] != '\0') id = uuid;
  std::free(uuid);
  cs::DestroyConfigStoreObject(object);
  object = nullptr;
  if (cs::CreateObject("switches", "network_zel", "orn", id.c_str(), content.c_str(), &object) ==
      cs::kOk) {
    cs::Set(store, object, "EXTERNAL");
  }
  cs::DestroyConfigStoreObject(object);
}

// Replaces the stored objects by those of the input, in one transaction.
void StoreInput(const std::string &input) {
  ClearStore();
  cs::Store *store = OpenStore();
  cs::BeginTransaction(store);
  size_t start = 0;
  for (int i = 0; i < kMaxObjects && start <= input.size(); ++i) {
    const size_t end = std::min(input.find('\0', start), input.size());
    Put(store, input.substr(start, end - start), i);
    start = end + 1;
  }
  cs::CommitTransaction(store);
  cs::DestroyStore(store);
}

// Loads the store; a successful load must decode with one switch per stored
// object.  Returns the blob (null when the load failed).
void *LoadAndCheck(uint32_t *length) {
  const int stored = ForEachStored([](cs::Store *, cs::Object *) {});
  void *blob = nullptr;
  if (ZELState_LoadFromConfigStoreAsBuf(&blob, length, false) != 0) return nullptr;
  ZELState_ConfigReset();
  int count = 0;
  if (ZELState_ConfigDeserialize(blob, *length) != STATUS_OK) std::abort();
  ZELState_SwitchForEach([](SwitchState *, void *n) { return ++*static_cast<int *>(n), false; },
                         &count);
  if (count != stored) std::abort();
  ZELState_ConfigReset();
  return blob;
}

std::vector<uint8_t> Bytes(const std::string &s) { return {s.begin(), s.end()}; }

zelfuzz::Seeds Seeds() {
  // A switch with two ports as a save writes it.
  const std::string saved =
      R"({"@types":{"max_ports":"int32"},"max_ports":64,"name":"blue","ports":[{"@types":)"
      R"({"connection_cookie":"uint32"},"connection_cookie":7,"key":"1","name":"web"},{"@types":)"
      R"({"connection_cookie":"uint32"},"connection_cookie":7,"key":"2","name":"web"}],)"
      R"("portset_name":"ps-1","product":{"forwarding_class":"vswitch","version":"7.0.0"},)"
      R"("uuid":"sw-blue"})";
  const std::string minimal =
      R"({"uuid":"sw-a","max_ports":8,"product":{"forwarding_class":"vswitch","version":"6.6.0"}})";
  const std::string ports =
      R"({"uuid":"sw-b","max_ports":4,"qor_enabled":true,"product":{"forwarding_class":"fabric",)"
      R"("version":"7.0.0"},"resource_management":{"enable":false},"uplink_port_keys":["p1"],)"
      R"("ports":[{"key":"p1","name":"one"},{"key":"p2","connection_cookie":5}]})";
  std::string two = minimal + '\0' + ports;
  std::string duplicate = minimal + '\0' + minimal;
  return {Bytes(saved), Bytes(minimal), Bytes(ports), Bytes(two), Bytes(duplicate)};
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  std::string base = std::filesystem::exists("/dev/shm") ? "/dev/shm"
                                                          : std::filesystem::temp_directory_path();
  static const std::string dir = base + "/zel-fuzz-store-" + std::to_string(getpid());
  std::filesystem::create_directories(dir);
  std::atexit([] { std::filesystem::remove_all(dir); });
  static std::string path = dir + "/configstore.db";
  cs::testing::UsePath(path.c_str());
  zel::state::testing::SetPortLimit(64);
  zelconfigstore_debug = -1;
  zelfuzz::MaybeWriteSeeds(Seeds());
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > (1 << 16)) return 0;
  StoreInput(std::string(reinterpret_cast<const char *>(data), size));
  uint32_t length = 0;
  void *blob = LoadAndCheck(&length);
  if (blob != nullptr && ZELState_SaveBufToConfigStore(blob, length) == 0) {
    std::free(LoadAndCheck(&length));
  }
  std::free(blob);
  return 0;
}
