// The windows the buffer benchmarks push through (10 rows x 6 joints with one metadata entry,
// copied from a template per call), a producer that yields such copies, and the bare handoff that
// the buffers are measured against.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>

#include "window/producers.hpp"

namespace corvane::bench {

namespace cw = corvane::control::window;

inline cw::WindowPayload TemplateWindow() {
  cw::WindowPayload window;
  window.positions = cw::SampleMatrix::Random(10, 6);
  window.start_index = 0;
  window.stop_index = 10;
  window.metadata["sample_time_s"] = "0.001000";
  return window;
}

// Copies the template on every call; never runs out unless given a count.
class CopyingProducer final : public cw::WindowProducerSession {
 public:
  explicit CopyingProducer(std::optional<std::size_t> count) : count_(count) {}
  void PrepareSession() override {}
  std::optional<cw::WindowPayload> ProduceNext() override {
    ++produced_;
    return template_;
  }
  bool IsExhausted() const override { return count_ && produced_ >= *count_; }
  std::optional<cw::WindowPayload> Finalize() override { return std::nullopt; }

 private:
  cw::WindowPayload template_ = TemplateWindow();
  std::optional<std::size_t> count_;
  std::size_t produced_ = 0;
};

// The bare handoff: one mutex, one condition variable, one deque, nothing else.
class BareHandoff {
 public:
  explicit BareHandoff(std::optional<std::size_t> capacity) : capacity_(capacity) {}
  // Waits for room; false when the handoff was finished meanwhile. `under_lock` runs with the
  // lock held, just before the window is queued.
  template <typename UnderLock>
  bool Push(cw::WindowPayload&& window, UnderLock under_lock) {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      cv_.wait(lock, [&] { return stopped_ || !capacity_ || queue_.size() < *capacity_; });
      if (stopped_) return false;
      under_lock();
      queue_.push_back(std::move(window));
    }
    cv_.notify_all();
    return true;
  }
  bool Push(cw::WindowPayload&& window) {
    return Push(std::move(window), [] {});
  }
  // Runs `read` with the lock held and returns its result.
  template <typename Read>
  auto Locked(Read read) {
    std::lock_guard<std::mutex> lock(mutex_);
    return read();
  }
  void Finish() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopped_ = true;
    }
    cv_.notify_all();
  }
  // Waits for a window when `wait`, else only tests for one.
  std::optional<cw::WindowPayload> Pop(bool wait) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (wait) cv_.wait(lock, [&] { return stopped_ || !queue_.empty(); });
    if (queue_.empty()) return std::nullopt;
    std::optional<cw::WindowPayload> window(std::move(queue_.front()));
    queue_.pop_front();
    lock.unlock();
    cv_.notify_all();
    return window;
  }

 private:
  std::optional<std::size_t> capacity_;
  std::mutex mutex_;
  std::condition_variable cv_;
  std::deque<cw::WindowPayload> queue_;
  bool stopped_ = false;
};

// A thread copying the template into the handoff until `count` windows or a Finish(), sleeping
// `period` before each.
inline std::thread BareProducer(
    BareHandoff& handoff, std::size_t count,
    std::chrono::microseconds period = std::chrono::microseconds::zero()) {
  return std::thread([&handoff, count, period] {
    const cw::WindowPayload window = TemplateWindow();
    for (std::size_t i = 0; i < count; ++i) {
      if (period.count() > 0) std::this_thread::sleep_for(period);
      if (!handoff.Push(cw::WindowPayload(window))) return;
    }
    handoff.Finish();
  });
}

}  // namespace corvane::bench
