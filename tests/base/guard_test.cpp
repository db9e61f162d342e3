#include "libtirn/base/guard.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cerrno>
#include <string>
#include <utility>

#include "support/faults.h"

using namespace tirn::test;
using tirn::Fd;

namespace {

bool is_open(int fd) { return fcntl(fd, F_GETFD) >= 0; }

int some_descriptor() { return open("/dev/null", O_RDONLY | O_CLOEXEC); }

TEST(Guard, DescriptorIsClosedOnce) {
  int kept;
  int moved;
  int replaced;
  {
    Fd first(some_descriptor());
    moved = first.get();
    Fd second(std::move(first));
    EXPECT_FALSE(first);
    EXPECT_TRUE(second);
    Fd third(some_descriptor());
    replaced = third.get();
    third = std::move(second);
    EXPECT_EQ(third.get(), moved);
    Fd fourth(some_descriptor());
    kept = fourth.release();
    EXPECT_FALSE(fourth);
    EXPECT_TRUE(is_open(moved));
  }
  EXPECT_FALSE(is_open(moved));
  EXPECT_FALSE(is_open(replaced));
  EXPECT_TRUE(is_open(kept));
  close(kept);
}

TEST(Guard, MutexIsReleasedOnlyIfItWasTaken) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutex_t mutex;
  pthread_mutex_init(&mutex, &attributes);
  {
    const tirn::MutexLock outer(mutex);
    EXPECT_EQ(outer.error(), 0);
    {
      const tirn::MutexLock inner(mutex);
      EXPECT_EQ(inner.error(), EDEADLK);
    }
    EXPECT_EQ(pthread_mutex_lock(&mutex), EDEADLK) << "released by the one that did not have it";
  }
  EXPECT_EQ(pthread_mutex_lock(&mutex), 0);
  pthread_mutex_unlock(&mutex);
  pthread_mutex_destroy(&mutex);
  pthread_mutexattr_destroy(&attributes);
}

TEST(Guard, CleaningUpKeepsTheError) {
  errno = ENOSPC;
  { const Fd closed_elsewhere(1 << 20); }
  EXPECT_EQ(errno, ENOSPC);
}

TEST(Guard, MappingGoesBack) {
  constexpr size_t kSize = 4096;
  void* address;
  {
    const tirn::Mapping mapping(kSize);
    ASSERT_TRUE(mapping);
    address = mapping.get();
    EXPECT_EQ(static_cast<char*>(address)[kSize - 1], 0);
  }
  unsigned char resident;
  EXPECT_NE(mincore(address, kSize, &resident), 0);
  EXPECT_FALSE(tirn::Mapping(size_t{1} << 60));
}

TEST(Guard, TaggedBlockGoesBackInItsMakersName) {
  const LogCapture log;
  const Faults faults({.number = 3, .function = "malloc"});
  {
    const auto block = tirn::tagged_block<uint64_t>(40);
    ASSERT_NE(block, nullptr);
    block.get()[4] = 1;
    EXPECT_EQ(faults.blocks(), 1);
    const auto moved = tirn::tagged_block<int>();
    EXPECT_EQ(faults.blocks(), 2);
    EXPECT_EQ(moved.get_deleter().function, std::string("TestBody"));
    EXPECT_EQ(tirn::tagged_block<int>(), nullptr);
  }
  EXPECT_EQ(faults.blocks(), 0);
  EXPECT_EQ(log.count(HURN_ERROR, "Malloc memory fails.*"), 1u) << log;
  EXPECT_EQ(log.lines().size(), 1u) << log;
}

}  // namespace
