// Implements the checksum routines of tirn/crc32.h on x86-64, by the fastest form that the processor has.
#include <atomic>

#include "libtirn/crc32/chain.h"
#include "libtirn/crc32/polynomial.h"
#include "libtirn/crc32/x86_64/forms/forms.h"
#include "libtirn/crc32/x86_64/unit.h"
#include "tirn/crc32.h"

namespace {

using tirn::crc32::Form;
using tirn::crc32::Unit;

// Shorter buffers (for CRC-16, buffers up to kShort16) take less time than a look-up of the best form.
constexpr uint32_t kShort = 128;
constexpr uint64_t kShort16 = 16;

// The fastest form, NULL until a thread has looked for it. Every thread finds the same one, and the forms are
// constant, so no order is needed.
constinit std::atomic<const Form*> g_best{nullptr};

__attribute__((noinline, cold)) const Form* find_best() {
  const Form* best = &tirn::crc32::kChain;
  for (const Form* form : tirn::crc32::kForms) {
    if (form->is_available()) {
      best = form;
    }
  }
  g_best.store(best, std::memory_order_relaxed);
  return best;
}

const Form& best() {
  const Form* const form = g_best.load(std::memory_order_relaxed);
  return *(form != nullptr ? form : find_best());
}

// Not inlined, so that the path for short buffers needs no stack frame.
__attribute__((noinline)) uint32_t crc32c_of_many(uint32_t crc, const uint8_t* source, uint32_t length) {
  return best().crc32c(crc, source, length);
}

__attribute__((noinline)) uint32_t crc32c_of_many(uint32_t crc, uint8_t* destination, const uint8_t* source,
                                                  uint32_t length) {
  return best().crc32c_with_copy(crc, destination, source, length);
}

const Form& streams() { return tirn::crc32::kStreams.is_available() ? tirn::crc32::kStreams : tirn::crc32::kChain; }

}  // namespace

// Short buffers mostly come here, so this path is the shortest.
uint32_t kesa_crc32cContinueHard(uint32_t crc, const void* buffer, uint32_t length) {
  const auto* const from = static_cast<const uint8_t*>(buffer);
  if (length < kShort) {
    return tirn::crc32::chain<Unit>(crc, from, length, tirn::crc32::Nowhere<Unit>{});
  }
  return crc32c_of_many(crc, from, length);
}

uint32_t AsmCrc32c(void* /*destination*/, uint32_t length, uint32_t crc, const void* source) {
  return kesa_crc32cContinueHard(crc, source, length);
}

uint32_t AsmCrc32cWithCpy(void* destination, uint32_t length, uint32_t crc, const void* source) {
  const auto* const from = static_cast<const uint8_t*>(source);
  auto* const to = static_cast<uint8_t*>(destination);
  if (length < kShort) {
    return tirn::crc32::chain<Unit>(crc, from, length, tirn::crc32::CopyTo<Unit>(from, to));
  }
  return crc32c_of_many(crc, to, from, length);
}

uint32_t Asm3Crc32c(void* /*destination*/, uint32_t length, uint32_t crc, const void* source) {
  if (static_cast<int32_t>(length) <= 0) {
    return crc;
  }
  return streams().crc32c(crc, static_cast<const uint8_t*>(source), length);
}

uint32_t kesa_3crc32cContinueHard(uint32_t crc, const void* buffer, uint32_t length) {
  return Asm3Crc32c(nullptr, length, crc, buffer);
}

uint32_t Asm3Crc32cWithCpy(void* destination, uint32_t length, uint32_t crc, const void* source) {
  if (static_cast<int32_t>(length) <= 0) {
    return crc;
  }
  return streams().crc32c_with_copy(crc, static_cast<uint8_t*>(destination), static_cast<const uint8_t*>(source),
                                    length);
}

uint16_t crc16_t10dif(uint16_t crc, const void* buffer, uint64_t length) {
  const auto* const bytes = static_cast<const uint8_t*>(buffer);
  return length <= kShort16 ? tirn::crc32::crc16_by_table(crc, bytes, length) : best().crc16(crc, bytes, length);
}
