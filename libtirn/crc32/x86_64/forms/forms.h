// The forms of both checksums that this processor may have, from the slowest to the fastest.
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
  uint16_t (*crc16)(uint16_t crc, const uint8_t* source, size_t length);  // 16 bytes at least
};

extern const Form kChain;    // the CRC instruction in one chain; CRC-16 by table
extern const Form kStreams;  // in three chains, joined by carry-less multiplication
extern const Form kFold128;  // beside carry-less folding in registers of this many bits
extern const Form kFold256;
extern const Form kFold512;

inline constexpr const Form* kForms[] = {&kChain, &kStreams, &kFold128, &kFold256, &kFold512};

// What advances a CRC-32C through 8 n zero bytes, and twice and three times as many: its product, taken through one
// CRC step.
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

// Copies from here on store past the caches. Measured: from 256 KiB on that is faster even when the destination is read
// at once; twice as much leaves larger second-level caches their use.
inline constexpr size_t kStoresPassCaches = size_t{1} << 19;

}  // namespace tirn::crc32

#endif
