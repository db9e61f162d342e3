// Measures searches for the first set bit of a map.
#include <cstring>

#include "peers/peers.h"
#include "support/bench.h"
#include "support/data.h"
#include "support/machine.h"
#include "tirn/bitops.h"

namespace tirn::bench {
namespace {

// Searches for the first set bit of a map in which only the last bit is set. The map is at another place in each
// repetition.
template <size_t kBits, class Search>
Measure search(Search find) {
  return one_thread(
      [] {
        static RandomBuffers buffers(kBits / 8);
        uint8_t* const map = buffers.next();
        std::memset(map, 0, kBits / 8);
        map[kBits / 8 - 1] = 0x80;
        return map;
      },
      [find](const uint8_t* map) {
        benchmark::DoNotOptimize(map);
        benchmark::DoNotOptimize(find(map));
      });
}

template <size_t kBits>
Group group(double target, uint64_t (*find_in_bitset)(const void*)) {
  return {.name = "bits/first_set_of_" + std::to_string(kBits),
          .target = target,
          .ours = {"find_first_bit", search<kBits>([](const void* map) { return find_first_bit(map, kBits); })},
          .peers = {{"word loop (countr_zero)",
                     search<kBits>([](const void* map) { return peer_first_bit_by_words(map, kBits); })},
                    {"bit loop", search<kBits>([](const void* map) { return peer_first_bit_by_bits(map, kBits); })}},
          .shown = {{"std::bitset, compiled for this size", search<kBits>(find_in_bitset)}}};
}

const Family bits{[] {
  return std::vector<Group>{group<256>(1.0, peer_first_bit_bitset_256),
                            group<65536>(has_avx2() ? 0.2 : 0.55, peer_first_bit_bitset_65536)};
}};

}  // namespace
}  // namespace tirn::bench
