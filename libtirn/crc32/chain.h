// One chain of CRC-32C steps, and the sinks that the words it reads go to. Each file that includes this defines its
// own `Unit`, the processor's steps of 8, 4, 2 and 1 bytes on a `Value`, in an unnamed namespace: files that are
// compiled for different processors must not share code.
#ifndef TIRN_CRC32_CHAIN_H
#define TIRN_CRC32_CHAIN_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace tirn::crc32 {

// The sink of the forms without copy, which stores nothing.
template <class Unit>
struct Nowhere {
  template <class Word>
  [[gnu::always_inline]] void put(const uint8_t* /*from*/, Word /*word*/) const {}
};

// The sink of the forms with copy. It stores each word at the offset in the destination that it has in the source.
template <class Unit>
class CopyTo {
 public:
  CopyTo(const void* source, void* destination)
      : distance_(reinterpret_cast<uintptr_t>(destination) - reinterpret_cast<uintptr_t>(source)) {}

  uint8_t* place(const uint8_t* from) const {
    return reinterpret_cast<uint8_t*>(reinterpret_cast<uintptr_t>(from) + distance_);
  }
  template <class Word>
  [[gnu::always_inline]] void put(const uint8_t* from, Word word) const {
    std::memcpy(place(from), &word, sizeof word);
  }

 private:
  uintptr_t distance_;
};

template <class Unit, class Word, class Sink>
[[gnu::always_inline]] inline typename Unit::Value step(typename Unit::Value crc, const uint8_t* from,
                                                        const Sink& sink) {
  Word word;
  std::memcpy(&word, from, sizeof word);
  sink.put(from, word);
  return Unit::step(crc, word);
}

// Takes sixteen bytes with a paired load and, in the forms with copy, a paired store.
template <class Unit, class Sink>
[[gnu::always_inline]] inline typename Unit::Value step_pair(typename Unit::Value crc, const uint8_t* from,
                                                             const Sink& sink) {
  struct {
    uint64_t first;
    uint64_t second;
  } pair;
  std::memcpy(&pair, from, sizeof pair);
  sink.put(from, pair);
  return Unit::step(Unit::step(crc, pair.first), pair.second);
}

template <class Unit, class Sink>
[[gnu::always_inline]] inline uint32_t chain(uint32_t seed, const uint8_t* at, size_t length, const Sink& sink) {
  typename Unit::Value crc = seed;
  for (; length >= 64; length -= 64) {
#pragma GCC unroll 4
    for (int pair = 0; pair < 4; ++pair, at += 16) {
      crc = step_pair<Unit>(crc, at, sink);
    }
  }
  for (; length >= 16; length -= 16, at += 16) {
    crc = step_pair<Unit>(crc, at, sink);
  }
  if ((length & 8) != 0) {
    crc = step<Unit, uint64_t>(crc, at, sink);
    at += 8;
  }
  if ((length & 4) != 0) {
    crc = step<Unit, uint32_t>(crc, at, sink);
    at += 4;
  }
  if ((length & 2) != 0) {
    crc = step<Unit, uint16_t>(crc, at, sink);
    at += 2;
  }
  if ((length & 1) != 0) {
    crc = step<Unit, uint8_t>(crc, at, sink);
  }
  return static_cast<uint32_t>(crc);
}

}  // namespace tirn::crc32

#endif
