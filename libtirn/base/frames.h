// Walks up the frame pointers of a stack.
#ifndef TIRN_BASE_FRAMES_H
#define TIRN_BASE_FRAMES_H

#include <cstdint>

namespace tirn {

struct StackBounds {
  uint64_t start;
  uint64_t end;
};

// Returns a word of a frame: 0 is the caller's frame pointer, 1 the return address. Read without sanitizer checks: a
// stale frame pointer may point into another frame.
__attribute__((no_sanitize("address", "thread"))) inline uint64_t frame_word(uint64_t frame, int index) {
  return reinterpret_cast<const volatile uint64_t*>(frame)[index];
}

// Returns whether a frame can lie at `pointer`: wholly on the stack, and aligned as its words are.
inline bool is_frame(uint64_t pointer, const StackBounds& stack) {
  constexpr uint64_t kFrameSize = 2 * sizeof(uint64_t);
  return pointer >= stack.start && pointer < stack.end && stack.end - pointer >= kFrameSize &&
         pointer % alignof(uint64_t) == 0;
}

// Stores the `count` return addresses after the first `skip` frames, or 0 once the chain has left the stack.
inline void walk_frames(uint64_t frame, const StackBounds& stack, uint32_t skip, uint32_t count, uint64_t* out) {
  for (; skip != 0 && is_frame(frame, stack); --skip) {
    frame = frame_word(frame, 0);
  }
  for (uint32_t i = 0; i < count; ++i) {
    out[i] = 0;
    if (is_frame(frame, stack)) {
      out[i] = frame_word(frame, 1);
      frame = frame_word(frame, 0);
    }
  }
}

}  // namespace tirn

#endif
