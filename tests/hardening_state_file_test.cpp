// The state file in a hostile directory: files planted beside it, several
// processes writing at once, and paths that are not files.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "hardening_support.h"
#include "zel/file.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;
using hardening::Slurp;

class HardeningStateFile : public ::testing::Test {
 protected:
  ReturnStatus Write(const Bytes &b) { return ZELFile_Write(path_.c_str(), b.data(), b.size()); }
  hardening::TempDir tmp_;
  const std::string dir_ = tmp_.path(), path_ = dir_ + "/zel.state", tmpName_ = path_ + ".tmp";
};

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
    void *blob = nullptr;
    int32_t length = 0;
    uint32_t offset = 0;
    if (ZELFile_ReadClassical(path_.c_str(), &blob, &length, &offset) != STATUS_OK) {
      ++torn;
    } else {
      torn += Bytes(static_cast<uint8_t *>(blob), static_cast<uint8_t *>(blob) + length) !=
              blobOf(length / 512 - 1);
      std::free(static_cast<uint8_t *>(blob) - offset);
    }
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
