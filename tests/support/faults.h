// Makes each call of the C library that a piece of the library makes fail in turn.
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
  kHeapFaults = 1,    // malloc and calloc
  kFileFaults = 2,    // calls on files, sockets and mappings
  kThreadFaults = 4,  // calls that make threads and their objects
  kLockFaults = 8,    // pthread_mutex_lock
  // Not a failure: the calls are cancellation points, and the calling thread is cancelled there.
  kCancellations = 16,
};

struct FaultPlan {
  unsigned kinds = kHeapFaults | kFileFaults | kThreadFaults;
  uint32_t number = 0;             // the call to fail, counted from 1; 0 only counts calls
  const char* function = nullptr;  // if set, only calls of this function, whatever its kind
  bool and_later = false;          // the later calls fail too
  Object object = Object::library;
};

struct Fault {
  bool happened = false;
  uint32_t number = 0;
  char function[64] = "";
  uintptr_t caller = 0;  // relative to where the object is loaded, for addr2line
};
std::ostream& operator<<(std::ostream& out, const Fault& fault);

// Calls fail while it lives, in all threads of the process. It also counts the heap blocks that the plan's object
// allocates meanwhile and does not free. Only one may live at a time.
class Faults {
 public:
  explicit Faults(const FaultPlan& plan);
  Faults(const Faults&) = delete;
  Faults& operator=(const Faults&) = delete;
  ~Faults();

  // From now on no call fails. Blocks are still counted.
  void stop();
  uint32_t calls() const;
  Fault fault() const;
  int blocks() const;
  // Returns how many descriptors were opened without close-on-exec, so that a child of another thread could inherit
  // them.
  uint32_t inheritable() const;

 private:
  std::vector<std::unique_ptr<Imports>> imports_;
};

// `run` runs once without a fault, and then once for each of the calls that it makes, with that call failing. Each
// run is in a child process. `check` gets the result of `run` and checks it (fault.happened is false in the run
// without a fault). `clean_up` gives back what a successful run leaves. After that, the child must hold no heap block
// of the library and no more descriptors than before, and every descriptor must have been opened close-on-exec.
struct Scenario {
  std::function<void()> prepare = [] {};
  std::function<long()> run;
  std::function<void(long result, const Fault& fault, const LogCapture& log)> check = [](long, const Fault&,
                                                                                         const LogCapture&) {};
  std::function<void()> clean_up = [] {};
  // With kCancellations alone, `run` runs on a thread of its own. Whether that thread ended or went on, another
  // thread must be able to do the same afterwards, and no child process, descriptor, heap block or slot of the
  // thread table may be lost.
  unsigned kinds = kHeapFaults | kFileFaults | kThreadFaults;
  int blocks_kept = 0;       // the most that may live as long as the process
  int descriptors_kept = 0;  // the same for descriptors
  int threads_kept = 0;      // the same for registered threads, each with a slot, a record and a signal stack
  std::chrono::milliseconds limit = std::chrono::seconds(20);  // for each run
  Object object = Object::library;
};

// Returns a text for each fault whose run went wrong. Stores the number of calls of the run without a fault in
// `calls`.
std::vector<std::string> find_problems(const Scenario& scenario, uint32_t* calls = nullptr);

// Fails the test for each problem, and if the run makes no call that could fail.
void sweep(const Scenario& scenario);

}  // namespace tirn::test

#endif
