// The state file: padding, verification on reading, every failure with its
// host-log message, and the replace-by-rename write surviving failures and a
// writer killed at any point.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "host/file_io.h"
#include "log_capture.h"
#include "zel/file.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

Bytes Pattern(size_t n, uint8_t seed) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(seed + i * 7);
  return b;
}
Bytes Slurp(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

class StateFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/zel-file-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    path_ = dir_ + "/zel.state";
  }
  void TearDown() override { fs::remove_all(dir_); }
  // Reads the state file back: its bytes, or its status on failure.
  Bytes ReadBack(ReturnStatus expect = STATUS_OK) {
    void *blob = nullptr;
    int32_t length = -1;
    uint32_t offset = 12345;
    EXPECT_EQ(ZELFile_ReadClassical(path_.c_str(), &blob, &length, &offset), expect);
    if (expect != STATUS_OK) return {};
    EXPECT_EQ(reinterpret_cast<uintptr_t>(blob) % 512, 0u);
    EXPECT_LT(offset, 512u);
    Bytes out(static_cast<uint8_t *>(blob), static_cast<uint8_t *>(blob) + length);
    std::free(static_cast<uint8_t *>(blob) - offset);
    return out;
  }

  std::string dir_, path_;
};

TEST_F(StateFileTest, BlobIsPaddedToWholeBlocks) {
  for (auto [blobLength, fileLength] : {std::pair{1000u, 1024u}, {1024u, 1024u}, {1u, 512u}}) {
    Bytes blob = Pattern(blobLength, static_cast<uint8_t>(blobLength));
    ASSERT_EQ(ZELFile_Write(path_.c_str(), blob.data(), blobLength), STATUS_OK);
    struct stat st {};
    ASSERT_EQ(stat(path_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    blob.resize(fileLength);  // zero filler
    EXPECT_EQ(ReadBack(), blob);
    EXPECT_FALSE(fs::exists(path_ + ".tmp"));
  }
  // Written in place, without a temporary file.
  const Bytes blob = Pattern(600, 1);
  ASSERT_EQ(ZELFile_WriteClassical(path_.c_str(), blob.data(), 600, 0), STATUS_OK);
  EXPECT_EQ(fs::file_size(path_), 1024u);
}

TEST_F(StateFileTest, ReadFailuresAndTheirMessages) {
  zeltest::LogCapture log;
  ReadBack(STATUS_NOT_FOUND);
  std::ofstream(path_).close();
  ReadBack(STATUS_FILE_EMPTY);
  const Bytes odd = Pattern(1000, 3);
  std::ofstream(path_, std::ios::binary).write(reinterpret_cast<const char *>(odd.data()), 1000);
  ReadBack(STATUS_IO_ERROR);
  const auto lines = log.Host();
  ASSERT_EQ(lines.size(), 2u);  // the empty file logs nothing
  EXPECT_EQ(lines[0].first, 110);
  EXPECT_EQ(lines[0].second,
            "failed to open zelfile " + path_ + " for read, error: No such file or directory\n");
  EXPECT_EQ(lines[1].second, "failed to verify zelfile " + path_ + " with length 1000\n");
}

// Fails one chosen step of a write with an error number, or kills the
// process right after that step.
class FaultIo : public zel::host::SystemFileIo {
 public:
  enum class Step { kOpen, kTruncate, kPwrite, kShortPwrite, kRename };
  FaultIo(Step step, bool kill) : step_(step), kill_(kill), previous_(zel::host::SetFileIo(this)) {}
  ~FaultIo() override { zel::host::SetFileIo(previous_); }
  int Open(const char *path, int flags, mode_t mode) override {
    return After(Step::kOpen, SystemFileIo::Open(path, flags, mode));
  }
  int Ftruncate(int fd, off_t length) override {
    if (Fails(Step::kTruncate)) return errno = EIO, -1;
    return After(Step::kTruncate, SystemFileIo::Ftruncate(fd, length));
  }
  ssize_t Pwrite(int fd, const void *buf, size_t count, off_t offset) override {
    if (Fails(Step::kPwrite)) return errno = ENOSPC, -1;
    if (step_ == Step::kShortPwrite) count /= 2;
    return After(Step::kShortPwrite, SystemFileIo::Pwrite(fd, buf, count, offset));
  }
  int Rename(const char *from, const char *to) override {
    if (Fails(Step::kRename)) return errno = EXDEV, -1;
    return After(Step::kRename, SystemFileIo::Rename(from, to));
  }

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

TEST_F(StateFileTest, FailedWritesKeepThePreviousState) {
  const Bytes old = Pattern(1024, 5), fresh = Pattern(2048, 77);
  ASSERT_EQ(ZELFile_Write(path_.c_str(), old.data(), 1024), STATUS_OK);
  EXPECT_EQ(ZELFile_Write(path_.c_str(), old.data(), 0), STATUS_BAD_PARAM);
  EXPECT_EQ(ZELFile_Write(path_.c_str(), nullptr, 10), STATUS_BAD_PARAM);
  EXPECT_EQ(ZELFile_Write(path_.c_str(), old.data(), 0xFFFFFE01u), STATUS_BAD_PARAM);
  const std::string tmp = path_ + ".tmp";
  using Step = FaultIo::Step;
  const struct {
    Step step;
    ReturnStatus status;
    std::string message;
  } cases[] = {
      {Step::kTruncate, STATUS_IO_ERROR,
       "failed to truncate zelfile " + tmp + ", error: Input/output error\n"},
      {Step::kPwrite, STATUS_WRITE_ERROR,
       "failed to write zelfile " + tmp + ", error: No space left on device\n"},
      {Step::kShortPwrite, STATUS_WRITE_ERROR, "failed to write zelfile " + tmp},
      {Step::kRename, STATUS_WRITE_ERROR,
       "failed to rename zelfile " + tmp + ", error: Invalid cross-device link\n"},
  };
  for (const auto &c : cases) {
    zeltest::LogCapture log;
    {
      FaultIo io(c.step, false);
      EXPECT_EQ(ZELFile_Write(path_.c_str(), fresh.data(), 2048), c.status);
    }
    EXPECT_EQ(Slurp(path_), old);
    EXPECT_GE(fs::file_size(tmp), c.step != Step::kTruncate);  // truncated to 1, never to 0
    ASSERT_EQ(log.Host().size(), 1u);
    EXPECT_EQ(log.Host()[0].second.rfind(c.message, 0), 0u) << log.Host()[0].second;
  }
  // The next write reuses the temporary file.
  ASSERT_EQ(ZELFile_Write(path_.c_str(), fresh.data(), 2048), STATUS_OK);
  EXPECT_EQ(Slurp(path_), fresh);
  zeltest::LogCapture log;
  const std::string nowhere = dir_ + "/missing/zel.state";
  EXPECT_EQ(ZELFile_Write(nowhere.c_str(), old.data(), 512), STATUS_IO_ERROR);
  EXPECT_EQ(log.Host().back().second, "failed to open zelfile " + nowhere +
                                          ".tmp for write, error: No such file or directory\n");
}

// A writer killed before the rename leaves the old state (also with half the
// data written), after it the new one.
TEST_F(StateFileTest, KilledWriterLeavesOldOrNewState) {
  const Bytes old = Pattern(1536, 1), fresh = Pattern(3072, 2);
  using Step = FaultIo::Step;
  for (Step step : {Step::kOpen, Step::kTruncate, Step::kShortPwrite, Step::kRename}) {
    SCOPED_TRACE(static_cast<int>(step));
    ASSERT_EQ(ZELFile_Write(path_.c_str(), old.data(), 1536), STATUS_OK);
    fs::remove(path_ + ".tmp");
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      FaultIo io(step, true);
      ZELFile_Write(path_.c_str(), fresh.data(), 3072);
      _exit(0);
    }
    int wstatus = 0;
    ASSERT_EQ(waitpid(child, &wstatus, 0), child);
    ASSERT_TRUE(WIFSIGNALED(wstatus));
    EXPECT_EQ(Slurp(path_), step == Step::kRename ? fresh : old);
  }
}

}  // namespace
