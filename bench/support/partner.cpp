// Runs the second measuring thread.
#include "support/partner.h"

#include <algorithm>
#include <optional>

#include "support/machine.h"
#include "support/measure.h"

namespace tirn::bench {
namespace {

constexpr double kNearBelow = 150;  // ns; the measured times are about 50, or above 300
std::optional<Partner> current;

}  // namespace

const char* name_of(Placement placement) {
  constexpr const char* kNames[] = {"", "near", "far"};
  return kNames[static_cast<int>(placement)];
}

Partner::Partner() {
  pin_to(cores()[0]);
  thread_ = std::thread([this] { serve(); });
  call();
  wait();
}

Partner::~Partner() {
  stop_ = true;
  call();
  thread_.join();
  unpin();
}

void Partner::serve() {
  pin_to(cores()[1]);
  for (bool stop = false; !stop;) {
    const uint64_t turn = turn_.load(std::memory_order_acquire);
    if (turn % 2 == 0) {
      continue;
    }
    stop = stop_;
    if (work_ != nullptr) {
      (*work_)();
    }
    turn_.store(turn + 1, std::memory_order_release);
  }
}

void Partner::call() { turn_.store(turn_.load(std::memory_order_relaxed) + 1, std::memory_order_release); }

void Partner::wait() const {
  while (turn_.load(std::memory_order_acquire) % 2 != 0) {
  }
}

void Partner::start(const std::function<void()>& work) {
  work_ = &work;
  call();
}

Placement Partner::placement() {
  constexpr int kTrips = 100;
  work_ = nullptr;
  double fastest = 1e9;
  for (int round = 0; round < 5; ++round) {
    const uint64_t start = now();
    for (int i = 0; i < kTrips; ++i) {
      call();
      wait();
    }
    fastest = std::min(fastest, static_cast<double>(now() - start) / kTrips);
  }
  return fastest < kNearBelow ? Placement::near : Placement::far;
}

Partner& partner() { return current ? *current : current.emplace(); }

void dismiss_partner() { current.reset(); }

Placement placement_now() {
  Partner passing;
  return passing.placement();
}

}  // namespace tirn::bench
