// Named results. Families in the style of the kernel return negated errno values, written as -EINVAL and so on.
#ifndef TIRN_BASE_RESULT_H
#define TIRN_BASE_RESULT_H

#include <cstdint>

namespace tirn {

inline constexpr int kOk = 0;
inline constexpr int kFail = -1;
inline constexpr uint32_t kFailU32 = ~uint32_t{0};

}  // namespace tirn

#endif
