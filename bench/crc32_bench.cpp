#include "tirn/crc32.h"

#include <cstring>
#include <string>

#include "peers/peers.h"
#include "support/bench.h"
#include "support/data.h"

namespace tirn::bench {
namespace {

constexpr size_t kCold = size_t{1} << 20;  // of which each is another one, all over kArena
constexpr size_t kArena = size_t{256} << 20;

// A pair of buffers, for one use or, beyond the cache, for a walk.
struct Place {
  const uint8_t* source;
  uint8_t* destination;
};

using Use = uint64_t (*)(uint8_t* destination, const uint8_t* source, size_t length);

// The same bytes over and over, at another place in each repetition.
template <size_t kLength>
Measure hot(Use use) {
  return one_thread(
      [] {
        static RandomBuffers buffers(kLength);
        return Place{buffers.next(), buffers.next()};
      },
      [use](const Place& place) { benchmark::DoNotOptimize(use(place.destination, place.source, kLength)); });
}

// A walk in pieces through more than the caches hold, which goes on in the next repetition.
Measure cold(Use use) {
  return one_thread([use] {
    static RandomBuffers sources(kArena, 64);
    static RandomBuffers destinations(kArena, 64);
    static uint8_t* const source = sources.next();
    static uint8_t* const destination = destinations.next();
    static size_t at = 0;
    benchmark::DoNotOptimize(use(destination + at, source + at, kCold));
    at = (at + kCold) % kArena;
  });
}

uint64_t copy(uint8_t* destination, const uint8_t* source, size_t length) {
  std::memcpy(destination, source, length);
  return destination[length / 2];
}

uint64_t read(uint8_t* /*destination*/, const uint8_t* source, size_t length) { return peer_read(source, length); }

uint64_t crc32c(uint8_t* /*destination*/, const uint8_t* source, size_t length) {
  return kesa_crc32c(source, static_cast<uint32_t>(length));
}

uint64_t crc32c_by_table(uint8_t* /*destination*/, const uint8_t* source, size_t length) {
  return kesa_crc32c_soft(source, static_cast<uint32_t>(length));
}

uint64_t crc32c_with_copy(uint8_t* destination, const uint8_t* source, size_t length) {
  return kesa_crc32cContinue_with_cpy(0, destination, static_cast<uint32_t>(length), source);
}

uint64_t crc16(uint8_t* /*destination*/, const uint8_t* source, size_t length) {
  return kesa_crc16(0, source, length);
}

uint64_t crc16_with_copy(uint8_t* destination, const uint8_t* source, size_t length) {
  std::memcpy(destination, source, length);
  return kesa_crc16(0, source, length);
}

const peer_checksums& isal() { return *peer_checksums_found(); }

uint64_t isal_crc32c(uint8_t* /*destination*/, const uint8_t* source, size_t length) {
  return isal().crc32_iscsi(source, static_cast<int>(length), 0);
}

uint64_t isal_crc32c_and_copy(uint8_t* destination, const uint8_t* source, size_t length) {
  const uint64_t crc = isal().crc32_iscsi(source, static_cast<int>(length), 0);
  std::memcpy(destination, source, length);
  return crc;
}

uint64_t isal_crc16(uint8_t* /*destination*/, const uint8_t* source, size_t length) {
  return isal().crc16_t10dif(0, source, length);
}

uint64_t isal_crc16_and_copy(uint8_t* destination, const uint8_t* source, size_t length) {
  const uint64_t crc = isal().crc16_t10dif(0, source, length);
  std::memcpy(destination, source, length);
  return crc;
}

uint64_t isal_crc16_with_copy(uint8_t* destination, const uint8_t* source, size_t length) {
  return isal().crc16_t10dif_copy(0, destination, source, length);
}

struct Named {
  const char* name;
  Use use;
};

struct Contest {
  const char* name;
  Named ours;
  std::vector<Named> peers;
  std::vector<Named> shown;
};

Group group(const Contest& contest, const std::string& size, double target, Measure (*measure)(Use)) {
  Group result{.name = "crc/" + std::string(contest.name) + "_" + size,
               .target = target,
               .set_up =
                   [] {
                     kesa_crc32_init();
                     return std::string();
                   },
               .ours = {contest.ours.name, measure(contest.ours.use)}};
  if (peer_checksums_found() != nullptr) {
    for (const Named& peer : contest.peers) {
      result.peers.push_back({peer.name, measure(peer.use)});
    }
  }
  for (const Named& row : contest.shown) {
    result.shown.push_back({row.name, measure(row.use)});
  }
  return result;
}

const Family checksums{[] {
  const Named copied{"memcpy", copy};
  const Named plain_read{"plain read", read};
  const Contest castagnoli{"crc32c", {"kesa_crc32c", crc32c}, {{"crc32_iscsi", isal_crc32c}}, {plain_read, copied}};
  const Contest copying{"crc32c_with_copy",
                        {"kesa_crc32cContinue_with_cpy", crc32c_with_copy},
                        {{"crc32_iscsi, memcpy", isal_crc32c_and_copy}},
                        {copied}};
  const Contest t10{"crc16", {"kesa_crc16", crc16}, {{"crc16_t10dif", isal_crc16}}, {plain_read, copied}};
  const Contest t10_copying{
      "crc16_with_copy",
      {"memcpy, kesa_crc16", crc16_with_copy},
      {{"crc16_t10dif_copy", isal_crc16_with_copy}, {"crc16_t10dif, memcpy", isal_crc16_and_copy}},
      {copied}};
  Contest with_table = castagnoli;
  with_table.shown.push_back({"kesa_crc32c_soft", crc32c_by_table});
  return std::vector<Group>{group(castagnoli, "16", 0.6, hot<16>),
                            group(castagnoli, "64", 0.6, hot<64>),
                            group(castagnoli, "512", 1.0, hot<512>),
                            group(with_table, "4096", 0.85, hot<4096>),
                            group(castagnoli, "16384", 0.85, hot<16384>),
                            group(castagnoli, "65536", 0.85, hot<65536>),
                            group(castagnoli, "1M", 0.85, hot<kCold>),
                            group(castagnoli, "1M_cold", 1.0, cold),
                            group(copying, "512", 0.95, hot<512>),
                            group(copying, "4096", 0.85, hot<4096>),
                            group(copying, "65536", 0.85, hot<65536>),
                            group(copying, "1M_cold", 0.5, cold),
                            group(t10, "64", 1.0, hot<64>),
                            group(t10, "512", 1.0, hot<512>),
                            group(t10, "4096", 1.0, hot<4096>),
                            group(t10, "1M", 1.0, hot<kCold>),
                            group(t10, "1M_cold", 1.0, cold),
                            group(t10_copying, "512", 0.95, hot<512>),
                            group(t10_copying, "4096", 0.95, hot<4096>)};
}};

}  // namespace
}  // namespace tirn::bench
