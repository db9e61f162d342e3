// Inputs at random places and in random order: a fixed place or order in memory can give times that are several times
// off.
#ifndef TIRN_BENCH_DATA_H
#define TIRN_BENCH_DATA_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

namespace tirn::bench {

inline std::mt19937_64& random_numbers() {
  static std::mt19937_64 numbers{std::random_device{}()};
  return numbers;
}

template <class T>
void shuffle(std::vector<T>& items) {
  std::shuffle(items.begin(), items.end(), random_numbers());
}

// Buffers of one size at random places of 64-byte alignment. next() returns another one each time. Each repetition
// takes one (two for a copy), so that the median covers as many places as there are repetitions.
class RandomBuffers {
 public:
  explicit RandomBuffers(size_t size, size_t arena = size_t{16} << 20)
      : size_(size), arena_(new (std::align_val_t{64}) uint8_t[arena + size]()), places_(arena / 64) {}

  uint8_t* next() { return arena_.get() + random_numbers()() % places_ * 64; }
  size_t size() const { return size_; }

 private:
  struct Free {
    void operator()(uint8_t* bytes) const { ::operator delete[](bytes, std::align_val_t{64}); }
  };
  size_t size_;
  std::unique_ptr<uint8_t[], Free> arena_;
  size_t places_;
};

}  // namespace tirn::bench

#endif
