// Defines the forms for 128-bit registers: the three chains alone, and the three chains beside folding.
#include "libtirn/crc32/x86_64/forms/streams.h"

namespace tirn::crc32 {
namespace {

bool has_multiplier() { return __builtin_cpu_supports("pclmul") != 0; }

}  // namespace

constinit const Form kStreams = {"three chains", has_multiplier, crc32c_without_copy<Lane, kChainsOnly>,
                                 [](uint32_t crc, uint8_t* destination, const uint8_t* source, size_t length) {
                                   return crc32c<Lane, kChainsOnly>(crc, source, length,
                                                                    CopyTo<Unit>(source, destination));
                                 },
                                 crc16<Lane>};

constinit const Form kFold128 = {"128-bit registers", has_multiplier, crc32c_without_copy<Lane, 5>,
                                 crc32c_with_copy<Lane, 5>, crc16<Lane>};

}  // namespace tirn::crc32
