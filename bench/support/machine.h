// The machine that measures: its cores, this process's share of them, and what a report says about both.
#ifndef TIRN_BENCH_MACHINE_H
#define TIRN_BENCH_MACHINE_H

#include <string>
#include <utility>
#include <vector>

namespace tirn::bench {

// Raises this process over all others as far as it may: a session of its own, the highest nice value, and the same
// for the session's scheduler group, without which the nice value counts only within the session. Tells what it
// reached. A process that leads a group goes on as its child; the parent waits and ends with the child's status.
std::string raise_priority();

// The cores that this process may run on, as it was started.
const std::vector<int>& cores();

void pin_to(int core);
void unpin();

// Threads that `start` starts keep to the last core, and this thread keeps to the first from now on: it measures
// beside a library's own threads. They meet where there is one core.
template <class Start>
void start_apart(const Start& start) {
  pin_to(cores().back());
  start();
  pin_to(cores().front());
}

// A repetition, in ms, that fits between two wake-ups of the stand-in's clock, 4 ms apart, where it shares our core.
inline double repetition_beside_clock() { return cores().size() > 1 ? 6 : 2; }

// A thread of the idle class spins on each core while this lives, so that no core halts; any other thread goes first.
class AwakeCores {
 public:
  AwakeCores();
  ~AwakeCores();
  AwakeCores(const AwakeCores&) = delete;
  AwakeCores& operator=(const AwakeCores&) = delete;

 private:
  struct State;
  State* state_;
};

bool has_avx2();

// Name and value pairs: processor, cores, kernel, compiler, time.
std::vector<std::pair<std::string, std::string>> machine_facts();

}  // namespace tirn::bench

#endif
