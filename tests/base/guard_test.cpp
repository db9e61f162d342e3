#include "libtirn/base/guard.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <utility>

#include "support/faults.h"

using namespace tirn::test;
using tirn::Fd;

namespace {

bool is_open(int fd) {
  return fcntl(fd, F_GETFD) >= 0;
}

int some_descriptor() {
  return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

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

TEST(Guard, TaggedBlockGoesBack) {
  const Faults faults({.number = 2, .function = "malloc"});
  {
    const auto block = tirn::tagged_block<uint64_t>(4);
    ASSERT_NE(block, nullptr);
    block[3] = 1;
    EXPECT_EQ(faults.blocks(), 1);
    const auto none = tirn::tagged_block<uint64_t>(4);
    EXPECT_EQ(none, nullptr);
  }
  EXPECT_EQ(faults.blocks(), 0);
}

}  // namespace
