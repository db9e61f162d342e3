// The second measuring thread, on a core of its own, and how far that core is from the first.
#ifndef TIRN_BENCH_PARTNER_H
#define TIRN_BENCH_PARTNER_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <thread>

namespace tirn::bench {

// Whether the two cores share a cache. A hypervisor moves them, and that alone makes a factor of six.
enum class Placement { none, near, far };
const char* name_of(Placement placement);

// While the object exists, the thread that made it is pinned to the first core and the partner spins on the second,
// so that neither core halts.
class Partner {
 public:
  Partner();
  ~Partner();
  Partner(const Partner&) = delete;
  Partner& operator=(const Partner&) = delete;

  // Has the partner run `work` at once. `work` must exist until wait() returns.
  void start(const std::function<void()>& work);
  void wait() const;

  // Finds the placement by the round trip of a cache line.
  Placement placement();

 private:
  void serve();
  void call();

  // The first thread stores an odd number to call the partner, which runs `work_` if that is set and stores the next
  // number as its answer. Both release stores pair with the other side's acquire loads: they pass on the work and its
  // effects.
  alignas(64) std::atomic<uint64_t> turn_{0};
  alignas(64) const std::function<void()>* work_ = nullptr;
  bool stop_ = false;
  std::thread thread_;
};

// Returns the partner of the group that is being measured. The first call makes it.
Partner& partner();
void dismiss_partner();

// Finds the placement with a partner that exists only meanwhile. One that stayed would take the core from a server
// that is measured.
Placement placement_now();

}  // namespace tirn::bench

#endif
