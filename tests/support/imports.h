// Redirects the calls that one object makes to functions of other objects, by changing its relocated addresses. Calls
// of the same functions from other objects, the sanitizers included, stay as they are.
#ifndef TIRN_TEST_IMPORTS_H
#define TIRN_TEST_IMPORTS_H

#include <cstdint>
#include <string_view>
#include <vector>

namespace tirn::test {

// libtirn.so, libhurn.so, libzut.so, or the test program with what is linked into it.
enum class Object { library, log, kernel_side, program };

// The destructor restores the addresses.
class Imports {
 public:
  explicit Imports(Object object);
  Imports(const Imports&) = delete;
  Imports& operator=(const Imports&) = delete;
  ~Imports();

  // Returns the function that the object calls by this name, or nullptr if it calls none.
  void* function(std::string_view name) const;
  // Redirects the object's calls of `name` to a function, or a lambda without captures, of the same type.
  void redirect(std::string_view name, auto replacement) { point(name, reinterpret_cast<void*>(+replacement)); }
  // Returns where the object is loaded. Subtract this from an address before passing it to addr2line.
  uintptr_t base() const { return base_; }

 private:
  struct Slot {
    std::string_view name;
    void** address;
    void* former;
  };
  void point(std::string_view name, void* replacement);

  uintptr_t base_ = 0;
  std::vector<Slot> slots_;
};

}  // namespace tirn::test

#endif
