// The window queue of AsyncWindowBuffer: a first-in, first-out ring of window slots that keeps
// its slots, and what they hold, when windows leave it.
//
// A window enters by swapping places with the slot behind the last one, so the producing thread
// gets back whatever storage that slot held: the matrices and metadata of a window that a
// consumer swapped in when it took its window out (PopInto), ready to be written again. Taking a
// window out moves or swaps it out of its slot and only advances an index, so a consumer never
// frees queue memory. The ring grows (doubling, on the producing thread) only when a window
// arrives while every slot is taken.
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

#include "window/records.hpp"

namespace corvane::control::window {

class WindowRing {
 public:
  // `slots`: slots made at once, at least 1; a bounded queue never needs more than its capacity.
  explicit WindowRing(std::size_t slots) : slots_(slots == 0 ? 1 : slots) {}

  bool empty() const { return size_ == 0; }
  std::size_t size() const { return size_; }
  // The oldest window; only when not empty.
  WindowPayload& front() { return slots_[head_]; }
  // Drops the oldest window's place; its slot keeps what it holds now.
  void pop_front() {
    head_ = Next(head_);
    --size_;
  }
  // The newest window; only when not empty.
  WindowPayload& back() { return slots_[(head_ + size_ - 1) % slots_.size()]; }
  // Drops the newest window's place; its slot keeps what it holds now.
  void pop_back() { --size_; }
  // Puts `window` at the back and leaves in it what the slot held before (storage to reuse, or an
  // empty window).
  void PushSwap(WindowPayload& window) {
    if (size_ == slots_.size()) Grow();
    std::swap(slots_[(head_ + size_) % slots_.size()], window);
    ++size_;
  }

 private:
  std::size_t Next(std::size_t slot) const { return slot + 1 == slots_.size() ? 0 : slot + 1; }
  // Twice the slots, the windows moved over oldest first to the start.
  void Grow() {
    std::vector<WindowPayload> grown(2 * slots_.size());
    for (std::size_t i = 0; i < size_; ++i) {
      grown[i] = std::move(slots_[(head_ + i) % slots_.size()]);
    }
    slots_ = std::move(grown);
    head_ = 0;
  }

  std::vector<WindowPayload> slots_;
  std::size_t head_ = 0;  // slot of the oldest window
  std::size_t size_ = 0;  // windows queued
};

}  // namespace corvane::control::window
