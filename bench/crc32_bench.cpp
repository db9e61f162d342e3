#include "tirn/crc32.h"

#include <cstring>
#include <utility>

#include "peers/peers.h"
#include "support/bench.h"
#include "support/data.h"

namespace tirn::bench {
namespace {

// Both ends of a copy, or one buffer twice; another pair in each repetition.
struct Pair {
  const uint8_t* source;
  uint8_t* destination;
};

// `use` on the same bytes over and over.
template <class Use>
Measure hot(size_t length, Use use) {
  return one_thread(
      [length] {
        RandomBuffers* const buffers = new RandomBuffers(length);  // NOLINT: the measuring process ends soon
        static std::vector<std::unique_ptr<RandomBuffers>> kept;
        kept.emplace_back(buffers);
        return Pair{buffers->next(), buffers->next()};
      },
      [length, use](const Pair& pair) { benchmark::DoNotOptimize(use(pair.destination, pair.source, length)); });
}

}  // namespace
}  // namespace tirn::bench
