// zel-kmodd with real processes: the daemon, agents through the device shim,
// clients that die, a daemon that dies, and frames that make no sense.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <future>
#include <random>
#include <thread>

#include "hardening_support.h"
#include "sim/emulated_kernel.h"
#include "sim/kmod/session.h"
#include "sim/kmod/socket_transport.h"
#include "zel/kernel.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using zel::kmod::ReplyHeader;
using zel::kmod::RequestHeader;
using Bytes = std::vector<uint8_t>;

bool WaitFor(const std::function<bool()> &done) {
  for (int i = 0; i < 400 && !done(); ++i) std::this_thread::sleep_for(10ms);
  return done();
}

int Connect(const std::string &path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
  const int s = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (::connect(s, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
    ::close(s);
    return -1;
  }
  return s;
}

// A request frame: the record and the bytes carried for data and cmdIn.
Bytes Frame(uint32_t op, uint64_t arg, const ZELPYXCommand *rec = nullptr, const Bytes &data = {},
            const Bytes &cmdIn = {}) {
  const uint32_t carried[3] = {uint32_t(data.size()), uint32_t(cmdIn.size()), 0};
  const size_t body = rec ? sizeof *rec + sizeof carried + data.size() + cmdIn.size() : 0;
  const RequestHeader header{zel::kmod::kRequestMagic, op, arg, uint32_t(body), 0};
  const std::pair<const void *, size_t> parts[] = {{&header, sizeof header},
                                                    {rec, rec ? sizeof *rec : 0},
                                                    {carried, rec ? sizeof carried : 0},
                                                    {data.data(), data.size()},
                                                    {cmdIn.data(), cmdIn.size()}};
  Bytes out;
  for (const auto &[p, n] : parts) {
    out.insert(out.end(), static_cast<const uint8_t *>(p), static_cast<const uint8_t *>(p) + n);
  }
  return out;
}

Bytes OpenFrame() { return Frame(zel::kmod::kOpOpen, O_RDWR); }

// A record naming a switch and a property, with fake client addresses.
ZELPYXCommand Record(uint32_t dataLen = 0, uint32_t cmdInLen = 0, uint32_t cmdOutLen = 0) {
  ZELPYXCommand rec{};
  std::snprintf(rec.switchName, sizeof rec.switchName, "sw-blue");
  std::snprintf(rec.name, sizeof rec.name, "com.acme.x");
  std::snprintf(rec.command, sizeof rec.command, "echo");
  rec.data = (rec.dataLen = dataLen) ? 0x1000 : 0;
  rec.cmdIn = (rec.cmdInLen = cmdInLen) ? 0x2000 : 0;
  rec.cmdOut = (rec.cmdOutLen = cmdOutLen) ? 0x3000 : 0;
  return rec;
}

// A zel-kmodd process on a socket of its own directory.
class Daemon {
 public:
  ~Daemon() { Kill(SIGKILL); }
  void Start() {
    pid_ = ::fork();
    if (pid_ == 0) {
      ::execl(ZEL_KMODD, "zel-kmodd", "--socket", socket_.c_str(), nullptr);
      ::_exit(127);
    }
    ASSERT_TRUE(WaitFor([&] {
      const int s = Connect(socket_);
      return s >= 0 && ::close(s) == 0;
    }));
  }
  void Kill(int sig) {
    if (pid_ <= 0) return;
    ::kill(pid_, sig);  // SIGSTOP or SIGKILL: stopped or gone before the caller goes on
    ::waitpid(pid_, nullptr, sig == SIGSTOP ? WUNTRACED : 0);
    if (sig == SIGKILL) pid_ = -1;
  }
  // Descriptors and threads of the daemon, to see that nothing leaks.
  std::pair<long, long> Resources() const {
    auto count = [&](const char *what) {
      const fs::path dir = "/proc/" + std::to_string(pid_) + what;
      return std::distance(fs::directory_iterator(dir), fs::directory_iterator());
    };
    return {count("/fd"), count("/task")};
  }
  // An agent through the device shim, its output in a pipe.
  FILE *Agent(const std::string &args) const {
    const std::string shim = " LD_PRELOAD=" ZEL_DEVSHIM " ASAN_OPTIONS=verify_asan_link_order=0 ";
    return ::popen(("ZEL_KMOD_SOCKET=" + socket_ + shim + ZEL_AGENT " " + args + " 2>&1").c_str(),
                   "r");
  }
  std::pair<int, std::string> RunAgent(const std::string &args) const {
    FILE *f = Agent(args);
    std::string text;
    for (char buf[256]; std::fgets(buf, sizeof buf, f) != nullptr;) text += buf;
    const int status = ::pclose(f);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, text};
  }
  const std::string &socket() const { return socket_; }

 private:
  hardening::TempDir dir_;
  const std::string socket_ = dir_.path() + "/run/kmod.sock";
  pid_t pid_ = -1;
};

// Agents adding ports at once lose none; a client gone in the middle of a
// frame leaves nothing behind; malformed frames are refused and the daemon
// serves on.
TEST(KmodProcess, AgentsDeadClientsAndMalformedFramesLeaveTheDaemonServing) {
  Daemon daemon;
  daemon.Start();
  ASSERT_EQ(daemon.RunAgent("add-switch sw-blue").first, 0);
  FILE *a = daemon.Agent("add-ports sw-blue a 150"), *b = daemon.Agent("add-ports sw-blue b 150");
  EXPECT_EQ(::pclose(a), 0);
  EXPECT_EQ(::pclose(b), 0);
  EXPECT_EQ(daemon.RunAgent("count sw-blue"), std::pair(0, std::string("300\n")));

  // Idle: the accepting thread alone, every earlier connection gone.
  ASSERT_TRUE(WaitFor([&] { return daemon.Resources().second == 1; }));
  const auto before = daemon.Resources();
  // A client that opens the device, sends half of a port-add frame and goes.
  Bytes frames = OpenFrame(), ioctl = Frame(zel::kmod::kOpIoctl, ZELPYX_REQ_PORT_ADD);
  reinterpret_cast<RequestHeader *>(ioctl.data())->bodyLen = 4096;
  ioctl.resize(ioctl.size() + 100);
  frames.insert(frames.end(), ioctl.begin(), ioctl.end());
  const int client = Connect(daemon.socket());
  ASSERT_EQ(::write(client, frames.data(), frames.size()), ssize_t(frames.size()));
  const bool connected = WaitFor([&] { return daemon.Resources().first == before.first + 1; });
  ::close(client);
  ASSERT_TRUE(connected);
  EXPECT_TRUE(WaitFor([&] { return daemon.Resources() == before; }));

  const ZELPYXCommand cap = Record(zel::kmod::kMaxBuffer + 1), lying = Record(8), none = Record();
  Bytes badMagic = OpenFrame(), huge = Frame(zel::kmod::kOpIoctl, 1), shortBody = huge;
  badMagic[0] ^= 1;
  reinterpret_cast<RequestHeader *>(huge.data())->bodyLen = zel::kmod::kMaxBody + 1;
  reinterpret_cast<RequestHeader *>(shortBody.data())->bodyLen = 10;
  shortBody.resize(shortBody.size() + 10);
  const struct {
    const char *what;
    Bytes frame;
    int error;
    bool kept;  // the connection still serves
  } rows[] = {
      {"wrong magic", badMagic, EPROTO, false},
      {"unknown op", Frame(7, 0), EPROTO, false},
      {"body over the limit", huge, EMSGSIZE, false},
      {"body shorter than a record", shortBody, EINVAL, true},
      {"carried bytes other than dataLen",
       Frame(zel::kmod::kOpIoctl, ZELPYX_REQ_GLOBAL_PROP_SET, &lying, Bytes(4)), EINVAL, true},
      {"output capacity over the limit",
       Frame(zel::kmod::kOpIoctl, ZELPYX_REQ_GLOBAL_PROP_GET, &cap), EMSGSIZE, true},
      {"a second open", OpenFrame(), EINVAL, true},
  };
  for (const auto &r : rows) {
    SCOPED_TRACE(r.what);
    const int s = Connect(daemon.socket());
    Bytes frames = OpenFrame();
    frames.insert(frames.end(), r.frame.begin(), r.frame.end());
    ASSERT_EQ(::write(s, frames.data(), frames.size()), ssize_t(frames.size()));
    ReplyHeader opened{}, refused{}, next{};
    ASSERT_EQ(::read(s, &opened, sizeof opened), ssize_t(sizeof opened));
    EXPECT_EQ(opened.result, 0);
    ASSERT_EQ(::recv(s, &refused, sizeof refused, MSG_WAITALL), ssize_t(sizeof refused));
    EXPECT_EQ(refused.result, -1);
    EXPECT_EQ(refused.error, r.error);
    const Bytes cleanup = Frame(zel::kmod::kOpIoctl, ZELPYX_REQ_STATE_CLEANUP, &none);
    ::send(s, cleanup.data(), cleanup.size(), MSG_NOSIGNAL);
    const ssize_t got = ::recv(s, &next, sizeof next, MSG_WAITALL);
    EXPECT_EQ(got == ssize_t(sizeof next) && next.result == 0, r.kept);
    ::close(s);
  }
  EXPECT_EQ(daemon.RunAgent("add-ports sw-blue c 3").first, 0);
  EXPECT_EQ(daemon.RunAgent("count sw-blue"), std::pair(0, std::string("303\n")));
}

// Without a daemon the device is missing.  The same requests through the
// daemon and through the in-process module give the same statuses, records
// and bytes.  A daemon killed during a request fails it; a restarted one
// serves the next through the same descriptor, with an empty module.
TEST(KmodProcess, BuffersAsInProcessAndADaemonKilledMidRequest) {
  Daemon daemon;
  zel::kmod::SocketTransport transport(daemon.socket());
  zel::sim::EmulatedKernel local;
  std::vector<std::string> seen;
  const std::vector<uint8_t> big(40000, 0x5a);  // a state past the first reply buffer
  auto script = [&](zel::host::DeviceTransport *device) {
    zel::kernel::ScopedTransport use(device);
    seen.clear();
    auto keep = [&](ReturnStatus status, void *bytes, uint32_t length, bool owned = true) {
      seen.push_back(std::to_string(status) + ":" +
                     std::string(static_cast<char *>(bytes), bytes ? length : 0));
      if (owned) ZELPYX_DataFree(bytes);
    };
    void *out[9] = {};
    uint32_t length[9] = {};
    const ReturnStatus statuses[9] = {  // in order: the sets first
        ZELPYX_SwitchAdd("sw-blue", "vswitch", 0, 7),
        ZELPYX_GlobalPropSet("sw-blue", "com.acme.big", big.data(), uint32_t(big.size()), 16),
        ZELPYX_PortAdd("sw-blue", "p1", nullptr, 0),
        ZELPYX_PortDataSet("sw-blue", "p1", "com.acme.x", "abc", 4, 16),
        ZELPYX_StateGet(&out[4], &length[4]),
        ZELPYX_PortDataGet("sw-blue", "p1", "com.acme.x", &out[5], &length[5]),
        ZELPYX_PortDataGet("sw-blue", "p1", "com.acme.none", &out[6], &length[6]),
        ZELPYX_CmdExec("", "echo", big.data(), uint32_t(big.size()), &out[7], &length[7]),
        ZELPYX_CmdExec("sw-blue", "ports", nullptr, 0, &out[8], &length[8])};
    for (int i = 0; i < 9; ++i) keep(statuses[i], out[i], length[i]);
    // A reply that does not fit: the module names the size and writes nothing past the buffer.
    uint8_t small[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    ZELPYXCommand rec = Record(2);
    std::snprintf(rec.portId, sizeof rec.portId, "p1");
    rec.data = zel::kernel::AddressOf(small);
    keep(ZELPYX_Ioctl(ZELPYX_REQ_PORT_DATA_GET, &rec), small, sizeof small, false);
    seen.push_back(std::to_string(rec.dataLen) + " " + std::to_string(rec.status));
    EXPECT_EQ(rec.data, zel::kernel::AddressOf(small));
    // A reply that fits: the bytes past it stay as they were.
    rec.dataLen = sizeof small;
    keep(ZELPYX_Ioctl(ZELPYX_REQ_PORT_DATA_GET, &rec), small, sizeof small, false);
    return seen;
  };
  EXPECT_EQ(transport.Open(ZELPYX_DEVICE_PATH, O_RDWR), -1);
  EXPECT_EQ(errno, ENOENT);  // as the device fails without a module
  EXPECT_EQ(daemon.RunAgent("count sw-blue").first, 2);
  daemon.Start();
  EXPECT_EQ(script(&transport), script(&local));
  EXPECT_EQ(seen[seen.size() - 2], "4 " + std::to_string(STATUS_LIMIT_EXCEEDED));
  EXPECT_EQ(seen.back(), std::string("0:abc\0\5\6\7\x08", 10));

  zel::kernel::ScopedTransport use(&transport);
  ASSERT_EQ(ZELPYX_PortFind("sw-blue", "p1"), STATUS_OK);  // the plain descriptor, opened
  daemon.Kill(SIGSTOP);
  auto add = [] { return ZELPYX_SwitchAdd("sw-green", "vswitch", 0, 7); };
  auto pending = std::async(std::launch::async, add);
  EXPECT_EQ(pending.wait_for(200ms), std::future_status::timeout);
  daemon.Kill(SIGKILL);
  EXPECT_EQ(pending.get(), STATUS_FAILURE);
  EXPECT_EQ(add(), STATUS_FAILURE);
  EXPECT_EQ(transport.Open(ZELPYX_DEVICE_PATH, O_RDWR), -1);
  EXPECT_EQ(errno, ECONNREFUSED);  // the dead daemon's socket

  daemon.Start();  // the same descriptor reaches it; its module starts empty
  EXPECT_EQ(add(), STATUS_OK);
  EXPECT_EQ(ZELPYX_SwitchRemove("sw-blue"), STATUS_NOT_FOUND);
}

// Every answer to a damaged stream is a well-formed reply; the module descriptor is closed.
TEST(KmodFrames, DamagedStreamsNeverCrashTheReader) {
  ZELPYXCommand add = Record(), set = Record(4), get = Record(64), exec = Record(0, 5, 16);
  add.version = 7;
  std::snprintf(add.name, sizeof add.name, "vswitch");
  Bytes stream = OpenFrame();
  for (const Bytes &f :
       {Frame(zel::kmod::kOpIoctl, ZELPYX_REQ_SWITCH_ADD, &add),
        Frame(zel::kmod::kOpIoctl, ZELPYX_REQ_GLOBAL_PROP_SET, &set, Bytes{1, 2, 3, 4}),
        Frame(zel::kmod::kOpIoctl, ZELPYX_REQ_GLOBAL_PROP_GET, &get),
        Frame(zel::kmod::kOpIoctl, ZELPYX_REQ_CMD_EXEC, &exec, {}, Bytes(5, 'x'))}) {
    stream.insert(stream.end(), f.begin(), f.end());
  }
  std::mt19937 rng(15);
  zel::sim::EmulatedKernel kernel;
  for (int round = 0; round < 3000; ++round) {
    Bytes damaged = stream;
    for (int flips = rng() % 6; flips > 0; --flips)
      damaged[rng() % damaged.size()] = uint8_t(rng());
    if (rng() % 4 == 0) damaged.resize(rng() % damaged.size());
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    ASSERT_EQ(::write(pair[0], damaged.data(), damaged.size()), ssize_t(damaged.size()));
    ::shutdown(pair[0], SHUT_WR);
    {
      zel::kmod::FdChannel channel(pair[1]);
      zel::kmod::Session session(kernel, channel);
      session.Run();
    }
    ::close(pair[1]);
    ASSERT_EQ(kernel.OpenDescriptors(), 0u) << "round " << round;
    Bytes out(1 << 16);
    out.resize(std::max<ssize_t>(0, ::recv(pair[0], out.data(), out.size(), MSG_WAITALL)));
    ::close(pair[0]);
    for (size_t at = 0; at < out.size();) {
      ReplyHeader reply;
      ASSERT_LE(at + sizeof reply, out.size());
      std::memcpy(&reply, out.data() + at, sizeof reply);
      ASSERT_EQ(reply.magic, zel::kmod::kReplyMagic);
      ASSERT_TRUE(reply.result == 0 || (reply.result == -1 && reply.error > 0));
      at += sizeof reply + reply.bodyLen;
      ASSERT_LE(at, out.size());
    }
  }
}

}  // namespace
