// Memory between two inaccessible pages: a read or write beyond its ends crashes the process.
#ifndef TIRN_TEST_GUARDED_H
#define TIRN_TEST_GUARDED_H

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstddef>
#include <cstdint>

namespace tirn::test {

class Guarded {
 public:
  Guarded() { EXPECT_EQ(mprotect(begin(), kSize, PROT_READ | PROT_WRITE), 0); }
  ~Guarded() { munmap(pages_, kSize + 2 * kPage); }
  Guarded(const Guarded&) = delete;
  Guarded& operator=(const Guarded&) = delete;

  uint8_t* begin() const { return pages_ + kPage; }
  uint8_t* end() const { return begin() + kSize; }

 private:
  static constexpr size_t kPage = 4096;
  static constexpr size_t kSize = size_t{3} << 20;
  uint8_t* const pages_ =
      static_cast<uint8_t*>(mmap(nullptr, kSize + 2 * kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
};

}  // namespace tirn::test

#endif
