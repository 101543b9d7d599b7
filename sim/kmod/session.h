// The daemon's side of one client connection: reads request frames
// (frame.h), runs each on the device transport it serves, and answers.
//
// Everything read is untrusted.  The session copies every buffer a record
// points to into its own memory, points the record at those copies for the
// module, and puts the client's addresses back before answering; it sends
// back only the bytes the module wrote, never more than the client offered.
// When the connection ends, however it ends, the descriptor it opened on
// the module is closed and its buffers are freed.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "host/device_transport.h"
#include "sim/kmod/frame.h"

namespace zel::kmod {

// Where a session reads frames from and writes replies to.
class Channel {
 public:
  virtual ~Channel() = default;
  // Exactly length bytes; false at the end of the stream or on an error.
  virtual bool Read(void *buffer, size_t length) = 0;
  virtual bool Write(iovec *iov, int count) = 0;
};

// A connected socket.
class FdChannel final : public Channel {
 public:
  explicit FdChannel(int fd) : fd_(fd) {}
  bool Read(void *buffer, size_t length) override { return RecvAll(fd_, buffer, length); }
  bool Write(iovec *iov, int count) override { return SendAll(fd_, iov, count); }

 private:
  int fd_;
};

class Session {
 public:
  Session(host::DeviceTransport &device, Channel &channel) : device_(device), channel_(channel) {}
  ~Session();
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  // Serves frames until the stream ends or a frame breaks it.
  void Run();
  // Serves one frame; false when the connection is to be closed.
  bool ServeOne();

 private:
  bool ReadBody(uint32_t length);
  bool Answer(int result, int error);
  void ServeOpen(const RequestHeader &header);
  bool ServeIoctl(const RequestHeader &header);

  host::DeviceTransport &device_;
  Channel &channel_;
  int fd_ = -1;                // the module descriptor this connection opened
  std::vector<uint8_t> body_;  // the frame being served
};

}  // namespace zel::kmod
