// Runs work on several threads at once.
#ifndef TIRN_TEST_TOGETHER_H
#define TIRN_TEST_TOGETHER_H

#include <barrier>
#include <thread>
#include <vector>

namespace tirn::test {

// Runs work(0) to work(count - 1), each on a thread of its own. All start at the same moment. Returns when all have
// ended.
template <typename Work>
void together(unsigned count, const Work& work) {
  std::barrier start(count);
  std::vector<std::jthread> threads;
  for (unsigned i = 0; i < count; ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      work(i);
    });
  }
}

}  // namespace tirn::test

#endif
