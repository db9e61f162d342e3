// The second measuring thread, on a core of its own, and how far that core lies from the first.
#ifndef TIRN_BENCH_PARTNER_H
#define TIRN_BENCH_PARTNER_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <thread>

namespace tirn::bench {

// Whether the two cores share a cache: a hypervisor moves them about, and that alone makes a factor of six.
enum class Placement { none, near, far };
const char* name_of(Placement placement);

// While it lives, the thread that made it is pinned to the first core and the partner spins on the second, so that
// neither core halts.
class Partner {
 public:
  Partner();
  ~Partner();
  Partner(const Partner&) = delete;
  Partner& operator=(const Partner&) = delete;

  // Lets the partner do `work`, which must live until wait() returns, at once.
  void start(const std::function<void()>& work);
  void wait() const;

  // By the time that a cache line takes to go there and back.
  Placement placement();

 private:
  void serve();
  void call();

  // Odd: a call by the first thread, with `work_` if that is set; the partner answers with the next number. Acquire
  // and release on both sides pass on the work and its effects.
  alignas(64) std::atomic<uint64_t> turn_{0};
  alignas(64) const std::function<void()>* work_ = nullptr;
  bool stop_ = false;
  std::thread thread_;
};

// The partner of the group that is being measured, made at its first use.
Partner& partner();
void dismiss_partner();

// The placement right now, where no partner may stay: it would take the core of a server that is measured.
Placement placement_now();

}  // namespace tirn::bench

#endif
