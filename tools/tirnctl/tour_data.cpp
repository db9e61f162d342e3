// The stops of the tour about checksums and rings, with measurements.
#include <tirn/crc32.h>
#include <tirn/queue.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include "tour.h"

namespace tirnctl {
namespace {

constexpr uint32_t kHot = 4096;                 // fits in the first-level cache
constexpr uint32_t kCold = 128u * 1024 * 1024;  // exceeds all caches
constexpr char kCheck[] = "123456789";
constexpr uint32_t kCheckLength = sizeof kCheck - 1;

struct Free {
  void operator()(void* memory) const { std::free(memory); }
};

uint64_t g_result;  // takes the results, so that the compiler keeps the work

void read(uint8_t*, const uint8_t* source, uint32_t length) {
  typedef uint64_t Words __attribute__((vector_size(16)));
  Words sums[8] = {};
  for (; length >= sizeof sums; length -= sizeof sums, source += sizeof sums) {
#pragma GCC unroll 8
    for (size_t i = 0; i < 8; ++i) {
      Words words;
      std::memcpy(&words, source + i * sizeof words, sizeof words);
      sums[i] ^= words;
    }
  }
  for (const Words& sum : sums) {
    g_result ^= sum[0] ^ sum[1];
  }
}
void crc32c(uint8_t*, const uint8_t* source, uint32_t length) { g_result ^= kesa_crc32c(source, length); }
void crc16(uint8_t*, const uint8_t* source, uint32_t length) { g_result ^= kesa_crc16(0, source, length); }
void by_table(uint8_t*, const uint8_t* source, uint32_t length) { g_result ^= kesa_crc32c_soft(source, length); }
void copy(uint8_t* destination, const uint8_t* source, uint32_t length) {
  std::memcpy(destination, source, length);
  g_result ^= destination[length / 2];
}
void crc32c_with_copy(uint8_t* destination, const uint8_t* source, uint32_t length) {
  g_result ^= kesa_crc32cContinue_with_cpy(UINT32_MAX, destination, length, source);
}

using Use = void (*)(uint8_t* destination, const uint8_t* source, uint32_t length);

constexpr struct {
  const char* name;
  Use use;
} kUses[] = {{"plain read", read},           {"CRC-32C", crc32c},  {"CRC-16/T10-DIF", crc16},
             {"CRC-32C by table", by_table}, {"plain copy", copy}, {"CRC-32C with copy", crc32c_with_copy}};

// Returns the speed in 10^9 bytes a second, measured over at least 50 ms.
double speed(Use use, uint8_t* destination, const uint8_t* source, uint32_t length) {
  const uint32_t at_once = length < kCold ? 256 : 1;  // calls between two readings of the clock
  use(destination, source, length);
  uint64_t bytes = 0, passed = 0;
  for (const uint64_t start = now(); passed < 50000000; passed = now() - start) {
    for (uint32_t i = 0; i < at_once; ++i) {
      use(destination, source, length);
    }
    bytes += uint64_t{at_once} * length;
  }
  return static_cast<double>(bytes) / static_cast<double>(passed);
}

constexpr uint32_t kSlots = 1024;
constexpr uint32_t kBurst = 32;
constexpr uint32_t kValues = 16u << 20;

void put_one(kesa_ring* ring, uint64_t value) {
  while (kesa_ring_enqueue(ring, value) != 0) {
    std::this_thread::yield();
  }
}

void put_burst(kesa_ring* ring, uint64_t value) {
  uint64_t values[kBurst];
  for (uint64_t& each : values) {
    each = value++;
  }
  for (uint32_t done = 0; done < kBurst;) {
    const uint32_t moved = kesa_ring_enqueue_burst(ring, values + done, kBurst - done);
    done += moved;
    if (moved == 0) {
      std::this_thread::yield();
    }
  }
}

// Returns how many millions of values a second pass from one thread to another; 0 if they do not arrive in order.
double hand_over(uint32_t flags, uint32_t at_once) {
  kesa_ring* ring = kesa_ring_create(kSlots, flags);
  if (ring == nullptr) {
    return 0;
  }
  const uint64_t start = now();
  std::thread producer([=] {
    for (uint64_t value = 0; value < kValues; value += at_once) {
      if (at_once == 1) {
        put_one(ring, value);
      } else {
        put_burst(ring, value);
      }
    }
  });
  bool in_order = true;
  for (uint64_t next = 0; next < kValues;) {
    uint64_t values[kBurst];
    const uint32_t taken =
        at_once == 1 ? kesa_ring_dequeue(ring, values) == 0 : kesa_ring_dequeue_burst(ring, values, at_once);
    for (uint32_t i = 0; i < taken; ++i) {
      in_order &= values[i] == next++;
    }
    if (taken == 0) {
      std::this_thread::yield();
    }
  }
  producer.join();
  const auto passed = static_cast<double>(now() - start);
  in_order &= kesa_ring_empty(ring) == 1;
  kesa_ring_delete(&ring);
  return in_order ? kValues * 1e3 / passed : 0;
}

}  // namespace

bool show_checksums() {
  const uint32_t crc = kesa_crc32c(kCheck, kCheckLength);
  const uint16_t short_crc = kesa_crc16(0, kCheck, kCheckLength);
  std::printf("    of \"%s\": CRC-32C 0x%08x, CRC-16/T10-DIF 0x%04x; by table 0x%08x, 0x%04x\n", kCheck, crc,
              short_crc, kesa_crc32c_soft(kCheck, kCheckLength), kesa_crc16_soft(0, kCheck, kCheckLength));
  const std::unique_ptr<uint8_t, Free> source(static_cast<uint8_t*>(std::malloc(kCold)));
  const std::unique_ptr<uint8_t, Free> destination(static_cast<uint8_t*>(std::malloc(kCold)));
  if (source == nullptr || destination == nullptr) {
    return false;
  }
  for (uint32_t i = 0; i < kCold; i += sizeof i) {
    std::memcpy(source.get() + i, &i, sizeof i);
  }
  std::printf("    %-20s%10s%12s\n", "GB a second", "4 KiB hot", "128 MiB");
  for (const auto& [name, use] : kUses) {
    const double hot = speed(use, destination.get(), source.get(), kHot);
    const double cold = speed(use, destination.get(), source.get(), kCold);
    std::printf("    %-20s%10.1f%12.1f\n", name, hot, cold);
  }
  return crc == kesa_crc32c_soft(kCheck, kCheckLength) && short_crc == kesa_crc16_soft(0, kCheck, kCheckLength);
}

bool show_ring() {
  bool all = true;
  std::printf("    %-32s%12s%14s\n", "millions a second", "one by one", "bursts of 32");
  for (const uint32_t flags : {KESA_RING_SINGLE_BOTH, KESA_RING_MANY}) {
    const double singly = hand_over(flags, 1);
    const double bursts = hand_over(flags, kBurst);
    std::printf("    %-32s%12.1f%14.1f\n",
                flags == KESA_RING_MANY ? "open to many threads" : "one producer, one consumer", singly, bursts);
    all &= singly > 0 && bursts > 0;
  }
  return all;
}

}  // namespace tirnctl
