// Listing the instances of a sub-object list, shared by the opaque-data and
// resource-pool conversions.
#pragma once

#include <cstdlib>

#include "configstore/persist.h"

namespace zel::persist::policy {

// The instances of one list; the array is released with the holder, the
// instances belong to the object they were listed from.
struct Instances {
  cs::Object **items = nullptr;
  int count = 0;
  Instances() = default;
  Instances(const Instances &) = delete;
  Instances &operator=(const Instances &) = delete;
  ~Instances() { std::free(items); }
};

// Lists the instances of the list `listName` under `object` through a filter
// made for it.  Returns the store status: that of the filter when it cannot
// be made, else that of the listing (6 when the list is absent).
inline int ListInstances(cs::Object *object, const char *listName, Instances &out) {
  cs::Filter *filter = nullptr;
  int status = cs::CreateFilterSpecObject(listName, "", "", "", &filter);
  if (status != cs::kOk) {
    return status;
  }
  status = cs::GetSubObjectInstances(object, filter, &out.items, &out.count);
  cs::DestroyFilterSpecObject(filter);
  return status;
}

}  // namespace zel::persist::policy
