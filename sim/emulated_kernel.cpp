#include "sim/emulated_kernel.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <vector>

namespace zel::sim {
namespace {

bool HasNul(const char *field, size_t size) { return std::memchr(field, '\0', size) != nullptr; }

void *Address(uint64_t address) { return reinterpret_cast<void *>(static_cast<uintptr_t>(address)); }

// The errno a failing request leaves, chosen by its status.
int ErrnoFor(ReturnStatus status) {
  switch (status) {
    case STATUS_NOT_FOUND: return ENOENT;
    case STATUS_EXISTS: return EEXIST;
    case STATUS_LIMIT_EXCEEDED: return ENOSPC;
    case STATUS_BAD_PARAM: return EINVAL;
    case STATUS_NO_MEMORY: return ENOMEM;
    case STATUS_NOT_SUPPORTED: return EOPNOTSUPP;
    default: return EIO;
  }
}

// The value a request sends in data/dataLen.  Zero-length values are refused:
// a property always has a value.
ReturnStatus InputValue(const ZELPYXCommand &rec, const void **value) {
  if (rec.dataLen == 0 || rec.data == 0) {
    return STATUS_BAD_PARAM;
  }
  *value = Address(rec.data);
  return STATUS_OK;
}

// Copies a reply into the caller's buffer, or names the length it needs.
ReturnStatus Reply(ZELPYXCommand &rec, const void *bytes, size_t length) {
  if (length > UINT32_MAX) {
    return STATUS_LIMIT_EXCEEDED;
  }
  if (length > rec.dataLen) {
    rec.dataLen = static_cast<uint32_t>(length);
    return STATUS_LIMIT_EXCEEDED;
  }
  if (length > 0) {
    if (rec.data == 0) {
      return STATUS_BAD_PARAM;
    }
    std::memcpy(Address(rec.data), bytes, length);
  }
  rec.dataLen = static_cast<uint32_t>(length);
  return STATUS_OK;
}

ReturnStatus ReplyEntry(ZELPYXCommand &rec, PropertyList *list, const char *name) {
  PropertyEntry *entry = nullptr;
  ReturnStatus status = ZELData_Lookup(list, name, &entry);
  if (status != STATUS_OK) {
    return status;
  }
  void *value = nullptr;
  const uint32_t length = ZELData_Data(entry, &value);
  return Reply(rec, value, length);
}

ReturnStatus SetEntry(const ZELPYXCommand &rec, PropertyList *list, const char *name) {
  const void *value = nullptr;
  ReturnStatus status = InputValue(rec, &value);
  if (status != STATUS_OK) {
    return status;
  }
  return ZELData_Update(list, name, value, rec.dataLen, rec.propType);
}

// The uplink index in the name field: signed decimal that fits 32 bits.
// Its canonical text names the uplink's entry.
ReturnStatus UplinkName(const char *text, std::string *out) {
  const char *end = text + std::strlen(text);
  int32_t index = 0;
  const auto [ptr, ec] = std::from_chars(text, end, index);
  if (text == end || ec != std::errc() || ptr != end) {
    return STATUS_BAD_PARAM;
  }
  *out = std::to_string(index);
  return STATUS_OK;
}

std::string Format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  char buf[512];
  const int n = std::vsnprintf(buf, sizeof buf, fmt, args);
  va_end(args);
  return std::string(buf, n < 0 ? 0 : std::min<size_t>(static_cast<size_t>(n), sizeof buf - 1));
}

}  // namespace

EmulatedKernel::EmulatedKernel(uint32_t hostPortLimit)
    : table_(std::make_unique<SwitchTable>(hostPortLimit)) {}

EmulatedKernel::~EmulatedKernel() = default;

int EmulatedKernel::Open(const char *path, int flags) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!present_ || path == nullptr || std::strcmp(path, ZELPYX_DEVICE_PATH) != 0) {
    ++counters_.failedOpens;
    errno = ENOENT;
    return -1;
  }
  if ((flags & O_ACCMODE) != O_RDWR) {
    ++counters_.failedOpens;
    errno = EACCES;
    return -1;
  }
  const int fd = nextFd_++;
  openFds_.insert(fd);
  ++counters_.opens;
  return fd;
}

int EmulatedKernel::Close(int fd) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (openFds_.erase(fd) == 0) {
    errno = EBADF;
    return -1;
  }
  ++counters_.closes;
  return 0;
}

int EmulatedKernel::Ioctl(int fd, unsigned long request, void *arg) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++counters_.ioctls;
  ++perRequest_[std::min<unsigned long>(request, kCountedRequests - 1)];
  if (openFds_.count(fd) == 0) {
    errno = EBADF;
    return -1;
  }
  if (arg == nullptr) {
    errno = EFAULT;
    return -1;
  }
  // Work on a copy, as a kernel would, and write back only the fields a
  // request returns.
  auto *user = static_cast<ZELPYXCommand *>(arg);
  ZELPYXCommand rec;
  std::memcpy(&rec, user, sizeof rec);
  lastRecord_ = rec;

  auto fault = std::find_if(faults_.begin(), faults_.end(), [request](const Fault &f) {
    return f.request < 0 || static_cast<unsigned long>(f.request) == request;
  });
  if (fault != faults_.end()) {
    const Fault f = *fault;
    faults_.erase(fault);
    if (f.kind != FaultKind::kFailWithoutStatus) {
      user->status = f.kind == FaultKind::kLimitWithoutLength ? STATUS_LIMIT_EXCEEDED : f.status;
    }
    errno = f.error;
    return -1;
  }

  ReturnStatus status;
  try {
    status = Serve(request, rec);
  } catch (const std::bad_alloc &) {
    status = STATUS_NO_MEMORY;
  }
  user->status = status;
  user->dataLen = rec.dataLen;
  user->cmdOutLen = rec.cmdOutLen;
  if (status == STATUS_OK) {
    return 0;
  }
  errno = ErrnoFor(status);
  return -1;
}

ReturnStatus EmulatedKernel::Serve(unsigned long request, ZELPYXCommand &rec) {
  if (!HasNul(rec.switchName, sizeof rec.switchName) || !HasNul(rec.portId, sizeof rec.portId) ||
      !HasNul(rec.name, sizeof rec.name) || !HasNul(rec.command, sizeof rec.command)) {
    return STATUS_BAD_PARAM;
  }
  switch (request) {
    case ZELPYX_REQ_STATE_INIT: {
      const void *blob = nullptr;
      ReturnStatus status = InputValue(rec, &blob);
      std::unique_ptr<SwitchTable> fresh;
      if (status == STATUS_OK) {
        status = SwitchTable::DecodeState(blob, rec.dataLen, table_->hostPortLimit(), &fresh);
      }
      if (status == STATUS_OK) {
        table_ = std::move(fresh);
      }
      return status;
    }
    case ZELPYX_REQ_STATE_CLEANUP:
      table_->Cleanup();
      return STATUS_OK;
    case ZELPYX_REQ_STATE_SANITIZE:
      table_->Sanitize();
      return STATUS_OK;
    case ZELPYX_REQ_STATE_GET: {
      std::vector<uint8_t> blob;
      ReturnStatus status = table_->EncodeState(&blob);
      return status == STATUS_OK ? Reply(rec, blob.data(), blob.size()) : status;
    }
    case ZELPYX_REQ_SWITCH_ADD:
      if (!SwitchTable::IsKnownVersion(rec.version)) {
        return STATUS_NOT_SUPPORTED;
      }
      return table_->AddSwitch(rec.switchName, rec.name, rec.maxPorts, rec.version);
    case ZELPYX_REQ_SWITCH_REMOVE:
      return table_->RemoveSwitch(rec.switchName);
    case ZELPYX_REQ_SWITCH_ASSOCIATE:
    case ZELPYX_REQ_SWITCH_DISSOCIATE:
    case ZELPYX_REQ_SWITCH_SET_MAX_PORTS:
    case ZELPYX_REQ_SWITCH_SET_VERSION: {
      Switch *sw = table_->FindSwitch(rec.switchName);
      if (sw == nullptr) {
        return STATUS_NOT_FOUND;
      }
      if (request == ZELPYX_REQ_SWITCH_SET_MAX_PORTS) {
        return table_->SetMaxPorts(sw, rec.maxPorts);
      }
      if (request == ZELPYX_REQ_SWITCH_SET_VERSION) {
        return table_->SetVersion(sw, rec.version);
      }
      sw->associated = request == ZELPYX_REQ_SWITCH_ASSOCIATE;
      return STATUS_OK;
    }
    case ZELPYX_REQ_GLOBAL_PROP_GET:
    case ZELPYX_REQ_GLOBAL_PROP_SET:
    case ZELPYX_REQ_GLOBAL_PROP_CLEAR:
    case ZELPYX_REQ_HOST_PROP_GET:
    case ZELPYX_REQ_HOST_PROP_SET:
    case ZELPYX_REQ_HOST_PROP_CLEAR:
      return ServeSwitchProp(request, rec);
    case ZELPYX_REQ_PORT_ADD:
    case ZELPYX_REQ_PORT_REMOVE:
    case ZELPYX_REQ_PORT_DATA_GET:
    case ZELPYX_REQ_PORT_DATA_SET:
    case ZELPYX_REQ_PORT_DATA_CLEAR:
    case ZELPYX_REQ_PORT_STATE_GET:
    case ZELPYX_REQ_PORT_FIND:
    case ZELPYX_REQ_UPLINK_DATA_SET:
    case ZELPYX_REQ_UPLINK_DATA_GET:
      return ServePort(request, rec);
    case ZELPYX_REQ_CMD_EXEC:
      return ServeCommand(rec);
    default:
      return STATUS_NOT_SUPPORTED;
  }
}

ReturnStatus EmulatedKernel::ServeSwitchProp(unsigned long request, ZELPYXCommand &rec) {
  Switch *sw = table_->FindSwitch(rec.switchName);
  if (sw == nullptr) {
    return STATUS_NOT_FOUND;
  }
  if (rec.name[0] == '\0') {
    return STATUS_BAD_PARAM;
  }
  const bool global = request <= ZELPYX_REQ_GLOBAL_PROP_CLEAR;
  PropertyList *list = global ? sw->global.get() : sw->host.get();
  switch (request) {
    case ZELPYX_REQ_GLOBAL_PROP_GET:
    case ZELPYX_REQ_HOST_PROP_GET:
      return ReplyEntry(rec, list, rec.name);
    case ZELPYX_REQ_GLOBAL_PROP_SET:
    case ZELPYX_REQ_HOST_PROP_SET:
      return SetEntry(rec, list, rec.name);
    default:
      return ZELData_Remove(list, rec.name);
  }
}

ReturnStatus EmulatedKernel::ServePort(unsigned long request, ZELPYXCommand &rec) {
  Switch *sw = table_->FindSwitch(rec.switchName);
  if (sw == nullptr) {
    return STATUS_NOT_FOUND;
  }
  if (rec.portId[0] == '\0') {
    return STATUS_BAD_PARAM;
  }
  if (request == ZELPYX_REQ_PORT_ADD) {
    List props;
    ReturnStatus status;
    if (rec.dataLen == 0) {
      status = NewList(&props);
    } else if (rec.data == 0) {
      status = STATUS_BAD_PARAM;
    } else {
      status = DecodeList(Address(rec.data), rec.dataLen, &props);
    }
    return status == STATUS_OK ? table_->AddPort(sw, rec.portId, std::move(props)) : status;
  }
  Port *port = SwitchTable::FindPort(*sw, rec.portId);
  if (port == nullptr) {
    return STATUS_NOT_FOUND;
  }
  switch (request) {
    case ZELPYX_REQ_PORT_REMOVE:
      return table_->RemovePort(sw, rec.portId);
    case ZELPYX_REQ_PORT_FIND:
      return STATUS_OK;
    case ZELPYX_REQ_PORT_STATE_GET: {
      std::vector<uint8_t> data;
      ReturnStatus status = SwitchTable::EncodePort(*sw, *port, &data);
      return status == STATUS_OK ? Reply(rec, data.data(), data.size()) : status;
    }
    case ZELPYX_REQ_UPLINK_DATA_SET:
    case ZELPYX_REQ_UPLINK_DATA_GET: {
      std::string uplink;
      ReturnStatus status = UplinkName(rec.name, &uplink);
      if (status != STATUS_OK) {
        return status;
      }
      return request == ZELPYX_REQ_UPLINK_DATA_SET
                 ? SetEntry(rec, port->uplinks.get(), uplink.c_str())
                 : ReplyEntry(rec, port->uplinks.get(), uplink.c_str());
    }
    default:
      break;
  }
  if (rec.name[0] == '\0') {
    return STATUS_BAD_PARAM;
  }
  if (request == ZELPYX_REQ_PORT_DATA_GET) {
    return ReplyEntry(rec, port->props.get(), rec.name);
  }
  if (std::strcmp(rec.name, kPortKindProp) == 0) {
    return STATUS_BAD_PARAM;  // the kind of a port never changes
  }
  return request == ZELPYX_REQ_PORT_DATA_SET ? SetEntry(rec, port->props.get(), rec.name)
                                             : ZELData_Remove(port->props.get(), rec.name);
}

ReturnStatus EmulatedKernel::ServeCommand(ZELPYXCommand &rec) {
  if (rec.cmdInLen > 0 && rec.cmdIn == 0) {
    return STATUS_BAD_PARAM;
  }
  const std::string command = rec.command;
  Switch *sw = rec.switchName[0] != '\0' ? table_->FindSwitch(rec.switchName) : nullptr;
  if (rec.switchName[0] != '\0' && sw == nullptr) {
    return STATUS_NOT_FOUND;
  }
  std::string out;
  if (command == "echo") {
    out.assign(static_cast<const char *>(Address(rec.cmdIn)), rec.cmdInLen);
  } else if (command == "stats" && sw == nullptr) {
    out = Format("switches %zu\nports %u\nhostPortLimit %u\n", table_->switches().size(),
                 table_->PortsInUse(), table_->hostPortLimit());
  } else if (command == "stats") {
    out = Format("switch %s\nclass %s\nversion %u\nmaxPorts %u\nports %zu\nassociated %d\n",
                 sw->name.c_str(), sw->className.c_str(), sw->version, sw->maxPorts,
                 sw->ports.size(), sw->associated ? 1 : 0);
  } else if (command == "ports") {
    if (sw == nullptr) {
      return STATUS_BAD_PARAM;
    }
    for (const auto &port : sw->ports) {
      out += Format("%s %u\n", port->id.c_str(), port->kind);
    }
  } else {
    return STATUS_NOT_SUPPORTED;
  }
  if (out.size() > rec.cmdOutLen) {
    rec.cmdOutLen = static_cast<uint32_t>(out.size());
    return STATUS_LIMIT_EXCEEDED;
  }
  if (!out.empty()) {
    if (rec.cmdOut == 0) {
      return STATUS_BAD_PARAM;
    }
    std::memcpy(Address(rec.cmdOut), out.data(), out.size());
  }
  rec.cmdOutLen = static_cast<uint32_t>(out.size());
  return STATUS_OK;
}

void EmulatedKernel::InjectFault(const Fault &fault) {
  std::lock_guard<std::mutex> lock(mutex_);
  faults_.push_back(fault);
}

void EmulatedKernel::SetDevicePresent(bool present) {
  std::lock_guard<std::mutex> lock(mutex_);
  present_ = present;
}

EmulatedKernel::Counters EmulatedKernel::counters() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return counters_;
}

uint64_t EmulatedKernel::IoctlCount(int request) const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (request < 0) {
    return 0;
  }
  return perRequest_[std::min<size_t>(static_cast<size_t>(request), kCountedRequests - 1)];
}

size_t EmulatedKernel::OpenDescriptors() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return openFds_.size();
}

ZELPYXCommand EmulatedKernel::LastRecord() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lastRecord_;
}

}  // namespace zel::sim
