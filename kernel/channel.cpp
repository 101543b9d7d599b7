// The device channel: the three exchanges with the kernel switch module
// (plain, reply, command execution) and the state-level requests.
#include "kernel/channel.h"

#include "host/lock.h"
#include "host/status_text.h"

#include <fcntl.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace zel::kernel {
namespace {

// The plain exchange's descriptor: -1 until the first successful open, then
// kept for the life of the process.  The mutex only serialises the opening,
// so that concurrent first requests open the device once, while a failed
// open leaves -1 and the next request tries again.
std::atomic<int> g_plainFd{-1};
std::mutex g_plainOpenMutex;

std::atomic<ReplyAllocFn> g_replyAlloc{nullptr};

void *AllocReply(size_t bytes) {
  ReplyAllocFn fn = g_replyAlloc.load(std::memory_order_acquire);
  return fn != nullptr ? fn(bytes) : std::malloc(bytes);
}

void PrintOpenFailure() { std::fprintf(stderr, "failed to open zeldev device %s\n", ZELPYX_DEVICE_PATH); }

int OpenDevice(host::DeviceTransport &transport) {
  int fd = transport.Open(ZELPYX_DEVICE_PATH, O_RDWR);
  return fd < 0 ? -1 : fd;
}

int PlainDescriptor(host::DeviceTransport &transport) {
  int fd = g_plainFd.load(std::memory_order_acquire);
  if (fd != -1) {
    return fd;
  }
  std::lock_guard<std::mutex> guard(g_plainOpenMutex);
  fd = g_plainFd.load(std::memory_order_relaxed);
  if (fd == -1) {
    fd = OpenDevice(transport);
    if (fd != -1) {
      g_plainFd.store(fd, std::memory_order_release);
    }
  }
  return fd;
}

// One growing-buffer exchange, shared by the reply and the command shapes:
// *capacityField is dataLen or cmdOutLen, *addressField data or cmdOut.
// Returns the outcome; *out is null unless the outcome is 0.
//
// The kernel's answers are not trusted: a failed ioctl always fails the
// exchange (STATUS_FAILURE when the record's status says 0, which would
// otherwise hand the caller success with no buffer), and the growth stops
// with STATUS_LIMIT_EXCEEDED after ZELPYX_MAX_REPLY_ROUNDS calls or when the
// kernel names a size above ZELPYX_MAX_REPLY_SIZE, so that a confused module
// can neither keep the caller looping nor make it allocate gigabytes.
template <typename OnAllocFailure>
ReturnStatus GrowingExchange(host::DeviceTransport &transport, int fd, int request,
                             ZELPYXCommand *cmd, uint32_t ZELPYXCommand::*capacityField,
                             uint64_t ZELPYXCommand::*addressField, void **out,
                             OnAllocFailure onAllocFailure) {
  for (uint32_t round = 1;; ++round) {
    const uint32_t capacity = cmd->*capacityField;
    void *buffer = AllocReply(capacity);
    *out = buffer;
    cmd->*addressField = AddressOf(buffer);
    if (buffer == nullptr) {
      onAllocFailure();
      return STATUS_NO_MEMORY;
    }
    cmd->status = STATUS_FAILURE;
    if (transport.Ioctl(fd, static_cast<unsigned long>(request), cmd) != -1) {
      // A length beyond the buffer would let the caller read past it.
      if (cmd->*capacityField > capacity) {
        cmd->*capacityField = capacity;
      }
      return STATUS_OK;
    }
    std::free(buffer);
    *out = nullptr;
    const ReturnStatus outcome = cmd->status;
    if (outcome == STATUS_OK) {
      return STATUS_FAILURE;
    }
    if (outcome != STATUS_LIMIT_EXCEEDED || cmd->*capacityField <= capacity) {
      return outcome;
    }
    if (cmd->*capacityField > ZELPYX_MAX_REPLY_SIZE || round >= ZELPYX_MAX_REPLY_ROUNDS) {
      return STATUS_LIMIT_EXCEEDED;
    }
  }
}

}  // namespace

void CopyText(char *field, size_t size, const char *text) {
  std::snprintf(field, size, "%s", text != nullptr ? text : "");
}

host::DeviceTransport *InstallTransport(host::DeviceTransport *transport) {
  host::DeviceTransport *previous = host::SetDeviceTransport(transport);
  ResetPlainDescriptorForTesting();
  return previous;
}

void ResetPlainDescriptorForTesting() {
  std::lock_guard<std::mutex> guard(g_plainOpenMutex);
  g_plainFd.store(-1, std::memory_order_release);
}

ReplyAllocFn SetReplyAllocator(ReplyAllocFn fn) {
  return g_replyAlloc.exchange(fn, std::memory_order_acq_rel);
}

ReturnStatus ZELPYXIoctlGet(int request, ZELPYXCommand *cmd, void **reply, uint32_t *replyLen) {
  if (cmd == nullptr || reply == nullptr || replyLen == nullptr) {
    return STATUS_BAD_PARAM;
  }
  host::DeviceTransport &transport = host::CurrentDeviceTransport();
  const int fd = OpenDevice(transport);
  if (fd == -1) {
    PrintOpenFailure();
    return STATUS_FAILURE;
  }
  cmd->dataLen = ZELPYX_FIRST_REPLY_SIZE;
  const ReturnStatus outcome =
      GrowingExchange(transport, fd, request, cmd, &ZELPYXCommand::dataLen, &ZELPYXCommand::data,
                      reply, [] {});
  transport.Close(fd);
  *replyLen = cmd->dataLen;
  return outcome;
}

}  // namespace zel::kernel

using zel::kernel::CopyText;

extern "C" {

ZEL_API ZelRecLock *ZelSwitchPYXLock(void) {
  zel::host::RecLock *lock = zel::host::CreateSingletonRecLock(ZELPYX_LOCK_NAME, ZELPYX_LOCK_RANK);
  zel::host::Acquire(lock);
  return reinterpret_cast<ZelRecLock *>(lock);
}

ZEL_API void ZelSwitchPYXUnlock(ZelRecLock *lock) {
  if (lock != nullptr) {
    zel::host::Release(reinterpret_cast<zel::host::RecLock *>(lock));
  }
}

ZEL_API ReturnStatus ZELPYX_Ioctl(int request, ZELPYXCommand *cmd) {
  if (cmd == nullptr) {
    return STATUS_BAD_PARAM;
  }
  zel::host::DeviceTransport &transport = zel::host::CurrentDeviceTransport();
  const int fd = zel::kernel::PlainDescriptor(transport);
  if (fd == -1) {
    zel::kernel::PrintOpenFailure();
    return STATUS_FAILURE;
  }
  cmd->status = STATUS_FAILURE;
  if (transport.Ioctl(fd, static_cast<unsigned long>(request), cmd) != -1) {
    return STATUS_OK;
  }
  std::fprintf(stderr, "ioctl failed: %s\n", zel::host::Err_Errno2String(errno));
  return cmd->status;
}

ZEL_API ReturnStatus ZELPYX_CmdExec(const char *switchName, const char *command,
                                    const void *input, uint32_t inputLen, void **output,
                                    uint32_t *outputLen) {
  if (output == nullptr || outputLen == nullptr || !zel::kernel::ValueUsable(input, inputLen)) {
    return STATUS_BAD_PARAM;
  }
  ZELPYXCommand cmd{};
  CopyText(cmd.switchName, sizeof cmd.switchName, switchName);
  CopyText(cmd.command, sizeof cmd.command, command);
  cmd.cmdInLen = inputLen;
  cmd.cmdIn = zel::kernel::AddressOf(input);
  cmd.cmdOutLen = ZELPYX_FIRST_REPLY_SIZE;

  zel::host::DeviceTransport &transport = zel::host::CurrentDeviceTransport();
  const int fd = zel::kernel::OpenDevice(transport);
  if (fd == -1) {
    zel::kernel::PrintOpenFailure();
    return STATUS_FAILURE;
  }
  const ReturnStatus outcome = zel::kernel::GrowingExchange(
      transport, fd, ZELPYX_REQ_CMD_EXEC, &cmd, &ZELPYXCommand::cmdOutLen, &ZELPYXCommand::cmdOut,
      output, [] { std::fputs("failed to alloc buffer memory", stderr); });
  transport.Close(fd);
  *outputLen = cmd.cmdOutLen;
  return outcome;
}

ZEL_API ReturnStatus ZELPYX_StateInit(const void *blob, uint32_t blobLen) {
  if (!zel::kernel::ValueUsable(blob, blobLen)) {
    return STATUS_BAD_PARAM;
  }
  ZELPYXCommand cmd{};
  cmd.dataLen = blobLen;
  cmd.data = zel::kernel::AddressOf(blob);
  return ZELPYX_Ioctl(ZELPYX_REQ_STATE_INIT, &cmd);
}

ZEL_API ReturnStatus ZELPYX_StateCleanup(void) {
  ZELPYXCommand cmd{};
  return ZELPYX_Ioctl(ZELPYX_REQ_STATE_CLEANUP, &cmd);
}

ZEL_API ReturnStatus ZELPYX_StateSanitize(void) {
  ZELPYXCommand cmd{};
  return ZELPYX_Ioctl(ZELPYX_REQ_STATE_SANITIZE, &cmd);
}

ZEL_API ReturnStatus ZELPYX_StateGet(void **blob, uint32_t *blobLen) {
  ZELPYXCommand cmd{};
  return zel::kernel::ZELPYXIoctlGet(ZELPYX_REQ_STATE_GET, &cmd, blob, blobLen);
}

ZEL_API void ZELPYX_DataFree(void *buffer) { std::free(buffer); }

}  // extern "C"
