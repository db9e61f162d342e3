// One chain of CRC-32C steps, and where the words that it reads may go besides. Each file that uses it brings its own
// `Unit`, the processor's steps of 8, 4, 2 and 1 bytes, in an unnamed namespace: files compiled for different processors
// must share no code.
#ifndef TIRN_CRC32_CHAIN_H
#define TIRN_CRC32_CHAIN_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace tirn::crc32 {

// The sink of the forms without copy.
template <class Unit>
struct Nowhere {
  template <class Word>
  void put(const uint8_t* /*from*/, Word /*word*/) const {}
};

// The sink of the forms with copy: each word goes to the offset that it came from.
template <class Unit>
struct CopyTo {
  const uint8_t* source;
  uint8_t* destination;

  template <class Word>
  void put(const uint8_t* from, Word word) const {
    std::memcpy(destination + (from - source), &word, sizeof word);
  }
};

template <class Unit, class Word, class Sink>
uint32_t step(uint32_t crc, const uint8_t* from, const Sink& sink) {
  Word word;
  std::memcpy(&word, from, sizeof word);
  sink.put(from, word);
  return Unit::step(crc, word);
}

template <class Unit, class Sink>
uint32_t chain(uint32_t crc, const uint8_t* at, size_t length, const Sink& sink) {
  for (; length >= 64; length -= 64) {
#pragma GCC unroll 8
    for (int word = 0; word < 8; ++word, at += 8) {
      crc = step<Unit, uint64_t>(crc, at, sink);
    }
  }
  for (; length >= 16; length -= 16, at += 16) {
    crc = step<Unit, uint64_t>(crc, at, sink);
    crc = step<Unit, uint64_t>(crc, at + 8, sink);
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
  return crc;
}

}  // namespace tirn::crc32

#endif
