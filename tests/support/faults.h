// Failing calls of the system: each one that a piece of the library makes is made to fail in turn.
#ifndef TIRN_TEST_FAULTS_H
#define TIRN_TEST_FAULTS_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "imports.h"
#include "log_capture.h"

namespace tirn::test {

// The kinds of calls that can be made to fail; faults.cpp has the list of functions.
enum FaultKind : unsigned {
  kHeapFaults = 1,    // malloc and its like
  kFileFaults = 2,    // what opens, maps, reads, writes, resizes
  kThreadFaults = 4,  // what makes threads, processes and their objects
  kLockFaults = 8,    // pthread_mutex_lock
  // Not a failure: the call is a cancellation point, and its thread is cancelled there.
  kCancellations = 16,
};

struct FaultPlan {
  unsigned kinds = kHeapFaults | kFileFaults | kThreadFaults;
  uint32_t number = 0;             // the call to fail, counted from 1; 0: calls are only counted
  const char* function = nullptr;  // only calls of this one, whatever its kind
  bool and_later = false;          // the calls after it fail too
  Object object = Object::library;
};

struct Fault {
  bool happened = false;
  uint32_t number = 0;
  char function[64] = "";
  uintptr_t caller = 0;  // relative to the object, for addr2line
};
std::ostream& operator<<(std::ostream& out, const Fault& fault);

// Calls fail while it lives, in all threads of the process. Also counts the heap blocks that the object holds of
// those allocated meanwhile. One at a time.
class Faults {
 public:
  explicit Faults(const FaultPlan& plan);
  Faults(const Faults&) = delete;
  Faults& operator=(const Faults&) = delete;
  ~Faults();

  // No more calls fail from now on; blocks are still counted.
  void stop();
  uint32_t calls() const;
  Fault fault() const;
  int blocks() const;
  // Descriptors that were opened for a moment when another thread's child would have inherited them.
  uint32_t inheritable() const;

 private:
  std::vector<std::unique_ptr<Imports>> imports_;
};

// `run` once for each of the calls that it makes, each time in a child process with one call failing, and once
// without a fault. `check` gets run's result and looks at what is promised of it (fault.happened tells the run
// without one); `clean_up` gives back what a run that went well leaves. After that the child must hold no heap
// block of the library's and no descriptor more than before; every descriptor was opened close-on-exec.
struct Scenario {
  std::function<void()> prepare = [] {};
  std::function<long()> run;
  std::function<void(long result, const Fault& fault, const LogCapture& log)> check = [](long, const Fault&,
                                                                                         const LogCapture&) {};
  std::function<void()> clean_up = [] {};
  // With kCancellations alone, `run` runs on a thread of its own; whether that ended or went on, afterwards another thread
  // can call the same, and no child, no descriptor, no block and no slot of the thread table is lost.
  unsigned kinds = kHeapFaults | kFileFaults | kThreadFaults;
  int blocks_kept = 0;                                         // at most, that live as long as the process
  int descriptors_kept = 0;                                    // likewise
  std::chrono::milliseconds limit = std::chrono::seconds(20);  // of each run
  Object object = Object::library;
};

// What went wrong, a text for each fault; the calls that the run without a fault makes go to `calls`.
std::vector<std::string> find_problems(const Scenario& scenario, uint32_t* calls = nullptr);

// Fails the test with each problem, and where the run makes no call that could fail.
void sweep(const Scenario& scenario);

}  // namespace tirn::test

#endif
