// One object's way to functions of other objects: its relocated addresses, which a test may point elsewhere. Calls
// that other objects make of the same functions, the sanitizers' among them, are not touched.
#ifndef TIRN_TEST_IMPORTS_H
#define TIRN_TEST_IMPORTS_H

#include <cstdint>
#include <string_view>
#include <vector>

namespace tirn::test {

// libtirn.so, libhurn.so, libzut.so, or the test program with what is linked into it.
enum class Object { library, log, kernel_side, program };

// The addresses are put back at the end.
class Imports {
 public:
  explicit Imports(Object object);
  Imports(const Imports&) = delete;
  Imports& operator=(const Imports&) = delete;
  ~Imports();

  // The function that the object calls by this name; nullptr where it calls none.
  void* function(std::string_view name) const;
  // To a function of the same type.
  void redirect(std::string_view name, auto* replacement) { point(name, reinterpret_cast<void*>(replacement)); }
  // Where the object is loaded: what addr2line wants subtracted.
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
