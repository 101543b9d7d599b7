// The state file: padding, read checks, failures with their log messages,
// writers failing or killed midway, and a hostile directory.
#include "zel/file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "hardening_support.h"
#include "host/file_io.h"
#include "log_capture.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;
using hardening::Slurp;

Bytes Pattern(size_t n, uint8_t seed) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(seed + i * 7);
  return b;
}

// Installed for its lifetime: fails one chosen step of a file write with an
// error number, or kills the process right after that step; records the
// flushes and the rename.
class FaultIo : public zel::host::SystemFileIo {
 public:
  enum class Step { kNone, kTruncate, kPwrite, kShortPwrite, kFileSync, kDirSync, kRename };
  explicit FaultIo(Step step = Step::kNone, bool kill = false)
      : step_(step), kill_(kill), previous_(zel::host::SetFileIo(this)) {}
  ~FaultIo() override { zel::host::SetFileIo(previous_); }
  int Ftruncate(int fd, off_t length) override {
    if (Fails(Step::kTruncate)) return errno = EIO, -1;
    return After(Step::kTruncate, SystemFileIo::Ftruncate(fd, length));
  }
  ssize_t Pwrite(int fd, const void *buf, size_t count, off_t offset) override {
    if (Fails(Step::kPwrite)) return errno = ENOSPC, -1;
    if (step_ == Step::kShortPwrite) count /= 2;
    return After(Step::kShortPwrite, SystemFileIo::Pwrite(fd, buf, count, offset));
  }
  int Fsync(int fd) override {
    struct stat st {};
    fstat(fd, &st);
    steps.push_back(S_ISDIR(st.st_mode) ? "sync directory" : "sync file");
    if (Fails(S_ISDIR(st.st_mode) ? Step::kDirSync : Step::kFileSync)) return errno = EIO, -1;
    return SystemFileIo::Fsync(fd);
  }
  int Rename(const char *from, const char *to) override {
    steps.push_back("rename");
    if (Fails(Step::kRename)) return errno = EXDEV, -1;
    return After(Step::kRename, SystemFileIo::Rename(from, to));
  }
  std::vector<std::string> steps;

 private:
  bool Fails(Step step) const { return step_ == step && !kill_; }
  template <typename T>
  T After(Step step, T result) {
    if (step_ == step && kill_) kill(getpid(), SIGKILL);
    return result;
  }
  Step step_;
  bool kill_;
  zel::host::FileIo *previous_;
};

using Step = FaultIo::Step;

class StateFileTest : public ::testing::Test {
 protected:
  // Reads the state into *out, checking that it starts on a block boundary.
  ReturnStatus Read(Bytes *out) {
    void *blob = nullptr;
    int32_t length = -1;
    uint32_t offset = 12345;
    const ReturnStatus status = ZELFile_ReadClassical(path_.c_str(), &blob, &length, &offset);
    if (status != STATUS_OK) return status;
    EXPECT_EQ(reinterpret_cast<uintptr_t>(blob) % 512, 0u);
    EXPECT_LT(offset, 512u);
    out->assign(static_cast<uint8_t *>(blob), static_cast<uint8_t *>(blob) + length);
    std::free(static_cast<uint8_t *>(blob) - offset);
    return status;
  }
  ReturnStatus Write(const Bytes &b, const std::string &path = "") {
    return ZELFile_Write((path.empty() ? path_ : path).c_str(), b.data(), b.size());
  }

  hardening::TempDir tmp_;
  const std::string dir_ = tmp_.path(), path_ = dir_ + "/zel.state", tmpName_ = path_ + ".tmp";
};

// Reading a missing, empty or unverifiable file fails with its host-log
// message; a blob is written padded to whole blocks.
TEST_F(StateFileTest, ReadFailuresAndPaddingToWholeBlocks) {
  zeltest::LogCapture log;
  Bytes read;
  EXPECT_EQ(Read(&read), STATUS_NOT_FOUND);
  std::ofstream(path_).close();
  EXPECT_EQ(Read(&read), STATUS_FILE_EMPTY);
  std::ofstream(path_, std::ios::binary) << std::string(1000, 'z');
  EXPECT_EQ(Read(&read), STATUS_IO_ERROR);
  const auto lines = log.Host();
  ASSERT_EQ(lines.size(), 2u);  // the empty file logs nothing
  EXPECT_EQ(lines[0].first, 110);
  EXPECT_EQ(lines[0].second,
            "failed to open zelfile " + path_ + " for read, error: No such file or directory\n");
  EXPECT_EQ(lines[1].second, "failed to verify zelfile " + path_ + " with length 1000\n");
  for (auto [blobLength, fileLength] : {std::pair{1000u, 1024u}, {1024u, 1024u}, {1u, 512u}}) {
    Bytes blob = Pattern(blobLength, static_cast<uint8_t>(blobLength));
    ASSERT_EQ(Write(blob), STATUS_OK);
    struct stat st {};
    ASSERT_EQ(stat(path_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    blob.resize(fileLength);  // zero filler
    EXPECT_EQ(Read(&read), STATUS_OK);
    EXPECT_EQ(read, blob);
    EXPECT_FALSE(fs::exists(tmpName_));
  }
  // Written in place, without a temporary file.
  ASSERT_EQ(ZELFile_WriteClassical(path_.c_str(), Pattern(600, 1).data(), 600, 0), STATUS_OK);
  EXPECT_EQ(fs::file_size(path_), 1024u);
}

TEST_F(StateFileTest, FailedWritesKeepThePreviousState) {
  const Bytes old = Pattern(1024, 5), fresh = Pattern(2048, 77);
  ASSERT_EQ(Write(old), STATUS_OK);
  EXPECT_EQ(ZELFile_Write(path_.c_str(), old.data(), 0), STATUS_BAD_PARAM);
  EXPECT_EQ(ZELFile_Write(path_.c_str(), nullptr, 10), STATUS_BAD_PARAM);
  EXPECT_EQ(ZELFile_Write(path_.c_str(), old.data(), 0xFFFFFE01u), STATUS_BAD_PARAM);
  const struct {
    Step step;
    ReturnStatus status;
    std::string message;
  } cases[] = {
      {Step::kTruncate, STATUS_IO_ERROR,
       "failed to truncate zelfile " + tmpName_ + ", error: Input/output error\n"},
      {Step::kPwrite, STATUS_WRITE_ERROR,
       "failed to write zelfile " + tmpName_ + ", error: No space left on device\n"},
      {Step::kShortPwrite, STATUS_WRITE_ERROR, "failed to write zelfile " + tmpName_},
      // A file that may not survive is never put in place.
      {Step::kFileSync, STATUS_WRITE_ERROR,
       "failed to sync zelfile " + tmpName_ + ", error: Input/output error\n"},
      {Step::kRename, STATUS_WRITE_ERROR,
       "failed to rename zelfile " + tmpName_ + ", error: Invalid cross-device link\n"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.message);
    zeltest::LogCapture log;
    {
      FaultIo io(c.step);
      EXPECT_EQ(Write(fresh), c.status);
    }
    EXPECT_EQ(Slurp(path_), old);
    EXPECT_GE(fs::file_size(tmpName_), c.step != Step::kTruncate);  // truncated to 1, never to 0
    ASSERT_EQ(log.Host().size(), 1u);
    EXPECT_EQ(log.Host()[0].second.rfind(c.message, 0), 0u) << log.Host()[0].second;
  }
  // The next write reuses the temporary file; the data is flushed before the
  // rename and the directory after.
  FaultIo io;
  ASSERT_EQ(Write(fresh), STATUS_OK);
  EXPECT_EQ(io.steps, (std::vector<std::string>{"sync file", "rename", "sync directory"}));
  EXPECT_EQ(Slurp(path_), fresh);
  zeltest::LogCapture log;
  {
    FaultIo dirSync(Step::kDirSync);  // after the rename: the new state may not survive a crash
    EXPECT_EQ(Write(old), STATUS_WRITE_ERROR);
  }
  EXPECT_EQ(log.Host().at(0).second,
            "failed to sync directory of zelfile " + path_ + ", error: Input/output error\n");
  const std::string nowhere = dir_ + "/missing/zel.state";
  EXPECT_EQ(Write(old, nowhere), STATUS_IO_ERROR);
  EXPECT_EQ(log.Host().back().second, "failed to open zelfile " + nowhere +
                                          ".tmp for write, error: No such file or directory\n");
}

// A writer killed before the rename leaves the old state (also with half the
// data written), after it the new one.
TEST_F(StateFileTest, KilledWriterLeavesOldOrNewState) {
  const Bytes old = Pattern(1536, 1), fresh = Pattern(3072, 2);
  for (Step step : {Step::kTruncate, Step::kShortPwrite, Step::kRename}) {
    SCOPED_TRACE(static_cast<int>(step));
    ASSERT_EQ(Write(old), STATUS_OK);
    fs::remove(tmpName_);
    const int code = hardening::InChild([&] {
      FaultIo io(step, true);
      return Write(fresh), 0;
    });
    EXPECT_EQ(code, -2);
    EXPECT_EQ(Slurp(path_), step == Step::kRename ? fresh : old);
  }
}

using HardeningStateFile = StateFileTest;

TEST_F(HardeningStateFile, FilesPlantedAtTheTemporaryNameAreNotTrusted) {
  const std::string victim = dir_ + "/victim";
  const Bytes old(512, 'o'), fresh(1024, 'n');
  const std::pair<std::function<void()>, ReturnStatus> rows[] = {
      {[&] { fs::create_symlink(victim, tmpName_); }, STATUS_IO_ERROR},
      {[&] { mkfifo(tmpName_.c_str(), 0666); }, STATUS_IO_ERROR},
      {[&] { std::ofstream(tmpName_) << "x", chmod(tmpName_.c_str(), 0666); }, STATUS_OK},
  };
  for (const auto &[plant, expect] : rows) {
    SCOPED_TRACE(expect);
    ASSERT_EQ(Write(old), STATUS_OK);
    std::ofstream(victim) << "victim";
    plant();
    EXPECT_EQ(hardening::InChild([&] { return Write(fresh) == expect ? 0 : 1; }), 0);
    EXPECT_EQ(Slurp(victim), Bytes({'v', 'i', 'c', 't', 'i', 'm'}));
    EXPECT_EQ(Slurp(path_), expect == STATUS_OK ? fresh : old);
    struct stat st {};
    ASSERT_EQ(lstat(path_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & (S_IFMT | 07777), S_IFREG | 0600u);
    fs::remove(tmpName_);
  }
}

TEST_F(HardeningStateFile, ConcurrentWritersLeaveACompleteState) {
  // Writer w writes 512 * (w + 1) bytes of the letter 'a' + w.
  auto blobOf = [](int w) { return Bytes(512 * (w + 1), static_cast<uint8_t>('a' + w)); };
  ASSERT_EQ(Write(blobOf(0)), STATUS_OK);
  std::vector<pid_t> writers;
  for (int w = 0; w < 4; ++w) {
    writers.push_back(fork());
    if (writers.back() == 0) {
      for (int i = 0; i < 40; ++i) {
        if (Write(blobOf(w)) != STATUS_OK) _exit(1);
      }
      _exit(0);
    }
  }
  int reads = 0, torn = 0, failedWriters = 0;
  for (size_t running = writers.size(); running > 0; ++reads) {
    Bytes read;
    torn += Read(&read) != STATUS_OK || read != blobOf(static_cast<int>(read.size() / 512) - 1);
    for (pid_t &child : writers) {
      int wstatus = 0;
      if (child > 0 && waitpid(child, &wstatus, WNOHANG) == child) {
        failedWriters += !WIFEXITED(wstatus) || WEXITSTATUS(wstatus) != 0;
        child = 0;
        --running;
      }
    }
  }
  EXPECT_EQ(torn, 0) << "of " << reads << " reads";
  EXPECT_EQ(failedWriters, 0);
}

TEST_F(HardeningStateFile, ReadRefusesWhatIsNotARegularFileWithoutBlocking) {
  const std::function<void()> rows[] = {
      [&] { mkfifo(path_.c_str(), 0600); },
      [&] { fs::create_directory(path_); },
      [&] { fs::create_symlink("/dev/null", path_); },
  };
  for (const auto &make : rows) {
    SCOPED_TRACE(&make - rows);
    make();
    EXPECT_EQ(hardening::InChild([&] {
                void *blob = nullptr;
                int32_t length = 0;
                uint32_t offset = 0;
                return ZELFile_Read(path_.c_str(), &blob, &length, &offset) != STATUS_IO_ERROR;
              }),
              0);
    fs::remove(path_);
  }
}

}  // namespace
