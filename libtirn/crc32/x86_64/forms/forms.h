// The forms of both checksums: one implementation for each kind of x86-64 processor, from the slowest to the fastest.
#ifndef TIRN_CRC32_X86_64_FORMS_FORMS_H
#define TIRN_CRC32_X86_64_FORMS_FORMS_H

#include <cstddef>
#include <cstdint>

namespace tirn::crc32 {

struct Form {
  const char* name;
  bool (*is_available)();
  uint32_t (*crc32c)(uint32_t crc, const uint8_t* source, size_t length);
  uint32_t (*crc32c_with_copy)(uint32_t crc, uint8_t* destination, const uint8_t* source, size_t length);
  uint16_t (*crc16)(uint16_t crc, const uint8_t* source, size_t length);  // of at least 16 bytes
};

extern const Form kChain;    // the CRC instruction in one chain; CRC-16 by table
extern const Form kStreams;  // three chains, joined by carry-less multiplication; CRC-16 by folding
extern const Form kFold128;  // three chains, while the multiplier folds registers of this many bits
extern const Form kFold256;
extern const Form kFold512;

inline constexpr const Form* kForms[] = {&kChain, &kStreams, &kFold128, &kFold256, &kFold512};

// Entry n of `by` holds the multipliers that advance a CRC-32C through 8 n, 16 n and 24 n zero bytes. To advance a
// CRC, multiply it carry-less by the multiplier and apply one 8-byte step of the CRC instruction to the product.
inline constexpr size_t kMostSteps = 1024;
struct Advance {
  uint32_t once;
  uint32_t twice;
  uint32_t thrice;
};
struct Advances {
  Advance by[kMostSteps + 1];
};
extern const Advances kAdvances;

// Copies of at least this length bypass the caches when they store. Measured: from 256 KiB on that is faster even if
// the destination is read right afterwards. The limit is twice that, so that copies that fit into a larger
// second-level cache still go through it.
inline constexpr size_t kStoresPassCaches = size_t{1} << 19;

}  // namespace tirn::crc32

#endif
