// What the library prints through a function like printf.
#ifndef TIRN_TEST_PRINTED_H
#define TIRN_TEST_PRINTED_H

#include <functional>
#include <string>

#include "tirn/base.h"

namespace tirn::test {

// The text that `show` prints through its argument. One at a time.
std::string printed(const std::function<void(kesa_print_fn)>& show);

}  // namespace tirn::test

#endif
