// Measures checksums, with and without a copy of the data.
#include "tirn/crc32.h"

#include <cstring>
#include <string>
#include <utility>

#include "peers/peers.h"
#include "support/bench.h"
#include "support/data.h"

namespace tirn::bench {
namespace {

constexpr size_t kCold = size_t{1} << 20;  // each operation takes the next such piece of an arena
constexpr size_t kArena = size_t{256} << 20;

// A pair of buffers, for one operation or for a whole walk beyond the caches.
struct Place {
  const uint8_t* source;
  uint8_t* destination;
};

using Use = uint64_t (*)(uint8_t* destination, const uint8_t* source, size_t length);

// Uses the same bytes again and again, at another place in each repetition.
template <size_t kLength>
struct Hot {
  template <Use kUse>
  static Measure measure() {
    return one_thread(
        [] {
          static RandomBuffers buffers(kLength);
          return Place{buffers.next(), buffers.next()};
        },
        [](const Place& place) { benchmark::DoNotOptimize(kUse(place.destination, place.source, kLength)); });
  }
};

// Walks in pieces through more memory than the caches hold. All rows share one walk, since one part of memory may be
// slower than another.
struct Cold {
  static Place next() {
    static RandomBuffers sources(kArena, 64);
    static RandomBuffers destinations(kArena, 64);
    static const Place all{sources.next(), destinations.next()};
    static size_t at = 0;
    at = (at + kCold) % kArena;
    return {all.source + at, all.destination + at};
  }

  template <Use kUse>
  static Measure measure() {
    return one_thread(
        [] {
          // Before the timing starts, read other memory, so that the data which the previous row wrote leaves the
          // caches.
          for (size_t read = 0; read < kArena / 4; read += kCold) {
            peer_read(next().source, kCold);
          }
          return &next;
        },
        [](Place (*next)()) {
          const Place place = next();
          benchmark::DoNotOptimize(kUse(place.destination, place.source, kCold));
        });
  }
};

// Calls the C library's memcpy. If the compiler knew the length, it would replace the call by an instruction that
// takes twice the time.
void call_memcpy(uint8_t* destination, const uint8_t* source, size_t length) {
  benchmark::DoNotOptimize(length);
  std::memcpy(destination, source, length);
}

uint64_t copy(uint8_t* destination, const uint8_t* source, size_t length) {
  call_memcpy(destination, source, length);
  return destination[length / 2];
}

uint64_t read(uint8_t* /*destination*/, const uint8_t* source, size_t length) { return peer_read(source, length); }

uint64_t crc32c(uint8_t* /*destination*/, const uint8_t* source, size_t length) {
  return kesa_crc32cContinue(0, source, static_cast<uint32_t>(length));
}

uint64_t crc32c_with_copy(uint8_t* destination, const uint8_t* source, size_t length) {
  return kesa_crc32cContinue_with_cpy(0, destination, static_cast<uint32_t>(length), source);
}

uint64_t crc16(uint8_t* /*destination*/, const uint8_t* source, size_t length) {
  return kesa_crc16(0, source, length);
}

uint64_t crc16_with_copy(uint8_t* destination, const uint8_t* source, size_t length) {
  const uint64_t crc = kesa_crc16(0, source, length);
  call_memcpy(destination, source, length);
  return crc;
}

const peer_checksums* const g_isal = peer_checksums_found();

uint64_t isal_crc32c(uint8_t* /*destination*/, const uint8_t* source, size_t length) {
  return g_isal->crc32_iscsi(source, static_cast<int>(length), 0);
}

uint64_t isal_crc32c_and_copy(uint8_t* destination, const uint8_t* source, size_t length) {
  const uint64_t crc = g_isal->crc32_iscsi(source, static_cast<int>(length), 0);
  call_memcpy(destination, source, length);
  return crc;
}

uint64_t isal_crc16(uint8_t* /*destination*/, const uint8_t* source, size_t length) {
  return g_isal->crc16_t10dif(0, source, length);
}

uint64_t isal_crc16_and_copy(uint8_t* destination, const uint8_t* source, size_t length) {
  const uint64_t crc = g_isal->crc16_t10dif(0, source, length);
  call_memcpy(destination, source, length);
  return crc;
}

uint64_t isal_crc16_with_copy(uint8_t* destination, const uint8_t* source, size_t length) {
  return g_isal->crc16_t10dif_copy(0, destination, source, length);
}

Group group(const std::string& name, double target, Row ours, std::vector<Row> peers, std::vector<Row> shown) {
  return {.name = "crc/" + name,
          .target = target,
          .set_up =
              [] {
                kesa_crc32_init();
                return std::string();
              },
          .ours = std::move(ours),
          .peers = g_isal != nullptr ? std::move(peers) : std::vector<Row>{},
          .shown = std::move(shown)};
}

template <class How>
std::vector<Row> limits() {
  return {{"plain read", How::template measure<read>()}, {"memcpy", How::template measure<copy>()}};
}

template <class How>
Group castagnoli(const std::string& size, double target) {
  return group("crc32c_" + size, target, {"kesa_crc32cContinue", How::template measure<crc32c>()},
               {{"crc32_iscsi", How::template measure<isal_crc32c>()}}, limits<How>());
}

// Here memory is the limit, so a plain read is a peer, too.
Group castagnoli_cold() {
  return group("crc32c_1M_cold", 1.05, {"kesa_crc32cContinue", Cold::measure<crc32c>()},
               {{"crc32_iscsi", Cold::measure<isal_crc32c>()}, {"plain read", Cold::measure<read>()}},
               {{"memcpy", Cold::measure<copy>()}});
}

template <class How>
Group castagnoli_with_copy(const std::string& size, double target) {
  return group("crc32c_with_copy_" + size, target,
               {"kesa_crc32cContinue_with_cpy", How::template measure<crc32c_with_copy>()},
               {{"crc32_iscsi, memcpy", How::template measure<isal_crc32c_and_copy>()}}, limits<How>());
}

template <class How>
Group t10dif(const std::string& size, double target) {
  return group("crc16_" + size, target, {"kesa_crc16", How::template measure<crc16>()},
               {{"crc16_t10dif", How::template measure<isal_crc16>()}}, limits<How>());
}

template <class How>
Group t10dif_with_copy(const std::string& size, double target) {
  return group("crc16_with_copy_" + size, target, {"kesa_crc16, memcpy", How::template measure<crc16_with_copy>()},
               {{"crc16_t10dif_copy", How::template measure<isal_crc16_with_copy>()},
                {"crc16_t10dif, memcpy", How::template measure<isal_crc16_and_copy>()}},
               limits<How>());
}

const Family checksums{[] {
  return std::vector<Group>{castagnoli<Hot<16>>("16", 0),
                            castagnoli<Hot<64>>("64", 0.6),
                            castagnoli<Hot<512>>("512", 1.0),
                            castagnoli<Hot<4096>>("4096", 0.85),
                            castagnoli<Hot<16384>>("16384", 0.85),
                            castagnoli<Hot<65536>>("65536", 0.85),
                            castagnoli<Hot<kCold>>("1M", 0.85),
                            castagnoli_cold(),
                            castagnoli_with_copy<Hot<512>>("512", 0.95),
                            castagnoli_with_copy<Hot<4096>>("4096", 0.85),
                            castagnoli_with_copy<Hot<65536>>("65536", 0.85),
                            castagnoli_with_copy<Cold>("1M_cold", 0.5),
                            t10dif<Hot<64>>("64", 0),
                            t10dif<Hot<512>>("512", 1.0),
                            t10dif<Hot<4096>>("4096", 1.0),
                            t10dif<Hot<kCold>>("1M", 1.0),
                            t10dif<Cold>("1M_cold", 0),
                            t10dif_with_copy<Hot<512>>("512", 0.95),
                            t10dif_with_copy<Hot<4096>>("4096", 0.95)};
}};

}  // namespace
}  // namespace tirn::bench
