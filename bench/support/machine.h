// The measuring machine: its cores, the priority of this process, and the facts that a report prints.
#ifndef TIRN_BENCH_MACHINE_H
#define TIRN_BENCH_MACHINE_H

#include <string>
#include <utility>
#include <vector>

namespace tirn::bench {

// Raises the priority of this process as far as it is permitted: a session of its own, nice -20, and the same for the
// session's scheduler group, without which the nice value counts only within the session. Returns what it reached, as
// text. If the process leads a process group, it continues in a child; the parent waits and ends with its status.
std::string raise_priority();

// Returns the cores on which this process was allowed to run at the first call.
const std::vector<int>& cores();

void pin_to(int core);
void unpin();

// Pins the threads that `start` starts to the last core, and then this thread to the first, so that a library's own
// threads do not disturb the measurement. If there is one core, they share it.
template <class Start>
void start_apart(const Start& start) {
  pin_to(cores().back());
  start();
  pin_to(cores().front());
}

// Returns the ms of a repetition. If the stand-in's clock shares our core, it fits between two of its wake-ups, which
// are 4 ms apart.
inline double repetition_beside_clock() { return cores().size() > 1 ? 6 : 2; }

// While this object exists, a thread of the idle class spins on each core, so that no core halts. Any other thread
// takes precedence.
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

// Returns pairs of a name and a value: processor, caches, cores, kernel, compiler, load, time.
std::vector<std::pair<std::string, std::string>> machine_facts();

}  // namespace tirn::bench

#endif
