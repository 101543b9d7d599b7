// The host-utility layer: named rank-checked recursive locks, the bit vector,
// status and errno texts, and the source of the system-wide port limit.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "host/bitvector.h"
#include "host/host_limits.h"
#include "host/lock.h"
#include "host/status_text.h"

using namespace zel::host;

namespace {

TEST(HostLockTest, SingletonByNameKeepsFirstRank) {
  RecLock *a = CreateSingletonRecLock("test.singleton", 10);
  EXPECT_EQ(a, CreateSingletonRecLock("test.singleton", 99));
  EXPECT_EQ(LockRank(a), 10u);
  EXPECT_STREQ(LockName(a), "test.singleton");
  EXPECT_NE(a, CreateSingletonRecLock("test.singleton2", 10));
}

TEST(HostLockTest, RecursiveAndExcludesOtherThreads) {
  RecLock *lock = CreateSingletonRecLock("test.recursive", 20);
  Acquire(lock);
  Acquire(lock);  // re-taking a held lock is fine
  std::atomic<bool> entered{false};
  std::thread other([&] {
    Acquire(lock);
    entered = true;
    Release(lock);
  });
  Release(lock);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(entered.load()) << "still held once";
  Release(lock);
  other.join();
  EXPECT_TRUE(entered.load());
}

TEST(HostLockTest, RisingRanksAndAnyReleaseOrderAreAccepted) {
  RecLock *low = CreateSingletonRecLock("test.low", 100);
  RecLock *high = CreateSingletonRecLock("test.high", 200);
  Acquire(low);
  Acquire(high);
  Acquire(low);  // held already: no rank check
  Release(low);
  Release(low);  // out of order
  Acquire(high);
  Release(high);
  Release(high);
  // Nothing is held any more: the low lock may be taken again.
  Acquire(low);
  Release(low);
}

TEST(HostLockDeathTest, LowerRankWhileHoldingHigherAborts) {
  RecLock *low = CreateSingletonRecLock("test.death.low", 100);
  RecLock *high = CreateSingletonRecLock("test.death.high", 200);
  EXPECT_DEATH(
      {
        Acquire(high);
        Acquire(low);
      },
      "lock rank violation: taking \"test.death.low\" \\(rank 0x00000064\\) while holding "
      "\"test.death.high\" \\(rank 0x000000C8\\)");
}

TEST(HostBitVectorTest, SetClearTestAndNextBitAcrossWords) {
  alignas(8) unsigned char memory[64];
  ASSERT_LE(BitVector::AllocSize(130), sizeof memory);
  EXPECT_EQ(BitVector::AllocSize(130), 8u + 3 * 8);
  BitVector *bv = BitVector::Init(memory, 130);
  EXPECT_EQ(bv->NextBit(0, true), BitVector::kNone);
  for (uint32_t i : {0u, 63u, 64u, 129u}) {
    bv->Set(i);
  }
  bv->Set(130);  // out of range: ignored
  EXPECT_TRUE(bv->Test(63));
  EXPECT_FALSE(bv->Test(62));
  EXPECT_FALSE(bv->Test(130));
  std::vector<int64_t> set;
  for (int64_t i = bv->NextBit(0, true); i != BitVector::kNone;
       i = bv->NextBit(static_cast<uint32_t>(i) + 1, true)) {
    set.push_back(i);
  }
  EXPECT_EQ(set, (std::vector<int64_t>{0, 63, 64, 129}));
  EXPECT_EQ(bv->NextBit(0, false), 1);
  EXPECT_EQ(bv->NextBit(63, false), 65);
  EXPECT_EQ(bv->NextBit(129, false), BitVector::kNone) << "bits past the size are not clear bits";
  EXPECT_EQ(bv->NextBit(500, true), BitVector::kNone);
  bv->Clear(64);
  EXPECT_EQ(bv->NextBit(64, true), 129);
  EXPECT_EQ(bv->NextBit(63, false), 64);
}

TEST(HostStatusTextTest, EveryLibraryStatusHasItsOwnText) {
  const ReturnStatus all[] = {STATUS_OK,        STATUS_FAILURE,     STATUS_NOT_FOUND,
                              STATUS_EXISTS,    STATUS_LIMIT_EXCEEDED, STATUS_BAD_PARAM,
                              STATUS_FILE_EMPTY, STATUS_IO_ERROR,   STATUS_READ_ERROR,
                              STATUS_WRITE_ERROR, STATUS_NO_MEMORY, STATUS_NOT_SUPPORTED,
                              STATUS_BAD_CHECKSUM};
  std::set<std::string> texts;
  for (ReturnStatus status : all) {
    std::string text = PYX_ReturnStatusToString(status);
    EXPECT_EQ(text.find("Unknown"), std::string::npos) << std::hex << status;
    texts.insert(text);
  }
  EXPECT_EQ(texts.size(), std::size(all));
  EXPECT_STREQ(PYX_ReturnStatusToString(STATUS_NOT_FOUND), "Not found");
  EXPECT_STREQ(PYX_ReturnStatusToString(0x0BAD0099u), "Unknown status 0x0bad0099");
  EXPECT_STREQ(Err_Errno2String(ENOENT), "No such file or directory");
}

// Restores the environment variable and the default source after each test.
class HostLimitsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char *saved = std::getenv(kMaxPortsSystemWideEnv);
    hadValue_ = saved != nullptr;
    if (hadValue_) {
      saved_ = saved;
    }
  }
  void TearDown() override {
    if (hadValue_) {
      setenv(kMaxPortsSystemWideEnv, saved_.c_str(), 1);
    } else {
      unsetenv(kMaxPortsSystemWideEnv);
    }
    zel::host::testing::UseDefaultKernelInfo();
  }
  static ReturnStatus Get(uint32_t *out) {
    *out = 7;
    return KernelInfoGetMaxPortsSystemWide(out);
  }

  bool hadValue_ = false;
  std::string saved_;
};

TEST_F(HostLimitsTest, EnvironmentThenDefault) {
  uint32_t value = 0;
  unsetenv(kMaxPortsSystemWideEnv);
  EXPECT_EQ(KernelInfoCheckSignature(), STATUS_OK);
  EXPECT_EQ(Get(&value), STATUS_OK);
  EXPECT_EQ(value, 4096u);
  setenv(kMaxPortsSystemWideEnv, "", 1);
  EXPECT_EQ(Get(&value), STATUS_OK);
  EXPECT_EQ(value, 4096u);
  setenv(kMaxPortsSystemWideEnv, "128000", 1);
  EXPECT_EQ(Get(&value), STATUS_OK);
  EXPECT_EQ(value, 128000u);
  setenv(kMaxPortsSystemWideEnv, "1048576", 1);
  EXPECT_EQ(Get(&value), STATUS_OK);
  EXPECT_EQ(value, kMaxPortsSystemWideCap);
}

TEST_F(HostLimitsTest, MalformedEnvironmentIsRefused) {
  for (const char *text : {"0", "abc", "12x", "-5", " 12", "+12", "1048577", "99999999999999999999"}) {
    setenv(kMaxPortsSystemWideEnv, text, 1);
    uint32_t value = 0;
    EXPECT_EQ(Get(&value), STATUS_BAD_PARAM) << text;
    EXPECT_EQ(value, 7u) << "not written on failure: " << text;
  }
}

TEST_F(HostLimitsTest, TestHooksOverrideAndFail) {
  setenv(kMaxPortsSystemWideEnv, "abc", 1);
  zel::host::testing::SetMaxPortsSystemWide(12);
  uint32_t value = 0;
  EXPECT_EQ(Get(&value), STATUS_OK);
  EXPECT_EQ(value, 12u);
  zel::host::testing::FailKernelInfo(STATUS_NOT_SUPPORTED, STATUS_OK);
  EXPECT_EQ(KernelInfoCheckSignature(), STATUS_NOT_SUPPORTED);
  EXPECT_EQ(Get(&value), STATUS_OK);
  zel::host::testing::FailKernelInfo(STATUS_OK, STATUS_FAILURE);
  EXPECT_EQ(KernelInfoCheckSignature(), STATUS_OK);
  EXPECT_EQ(Get(&value), STATUS_FAILURE);
  EXPECT_EQ(value, 7u);
}

}  // namespace
