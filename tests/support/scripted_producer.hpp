// Test doubles for the window buffers: a producer whose answers are scripted and whose calls are
// recorded, and the windows it yields.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "support/detached_call.hpp"
#include "window/producers.hpp"

namespace corvane::control::window::testing {

// A window of `rows` samples of one joint whose positions all hold `value`, covering
// [start, start + rows).
inline WindowPayload MakeWindow(double value, std::size_t start = 0, Eigen::Index rows = 1) {
  WindowPayload window;
  window.positions = SampleMatrix::Constant(rows, 1, value);
  window.start_index = start;
  window.stop_index = start + static_cast<std::size_t>(rows);
  return window;
}

// The value that identifies a window made by MakeWindow.
inline double ValueOf(const WindowPayload& window) { return window.positions(0, 0); }

// Counts of the calls a ScriptedProducer received. It outlives the producer (the buffer owns and
// destroys that), and lets a test wait, with a deadline, until a count is reached.
class CallLog {
 public:
  enum Call { kPrepare, kExhausted, kProduce, kFinalize, kDestroy, kCallKinds };

  void Record(Call call) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      ++counts_[call];
    }
    cv_.notify_all();
  }
  std::size_t Count(Call call) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return counts_[call];
  }
  // Waits until `call` has been made at least `count` times; false after kHangLimit.
  bool WaitFor(Call call, std::size_t count) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, testing_support::kHangLimit, [&] { return counts_[call] >= count; });
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable cv_;
  std::size_t counts_[kCallKinds] = {};
};

// A producer scripted by functions of the call number (0, 1, 2, ... per operation). By default
// it prepares, is never exhausted, yields MakeWindow(n) on call n, and has no tail.
struct Script {
  std::function<void()> prepare = [] {};
  std::function<bool(std::size_t)> exhausted = [](std::size_t) { return false; };
  std::function<std::optional<WindowPayload>(std::size_t)> produce = [](std::size_t n) {
    return std::optional<WindowPayload>(MakeWindow(static_cast<double>(n), n));
  };
  std::function<std::optional<WindowPayload>(std::size_t)> finalize = [](std::size_t) {
    return std::optional<WindowPayload>();
  };
};

// A script of `mainline` windows MakeWindow(0) .. MakeWindow(mainline - 1), exhausted after
// them, then `tail` windows that carry on the numbering: mainline, mainline + 1, ...
inline Script FiniteScript(std::size_t mainline, std::size_t tail = 0) {
  Script script;
  auto produced = std::make_shared<std::size_t>(0);
  script.exhausted = [mainline, produced](std::size_t) { return *produced >= mainline; };
  script.produce = [mainline, produced](std::size_t) -> std::optional<WindowPayload> {
    if (*produced >= mainline) return std::nullopt;
    const std::size_t n = (*produced)++;
    return MakeWindow(static_cast<double>(n), n);
  };
  script.finalize = [mainline, tail](std::size_t n) -> std::optional<WindowPayload> {
    if (n >= tail) return std::nullopt;
    return MakeWindow(static_cast<double>(mainline + n), mainline + n);
  };
  return script;
}

class ScriptedProducer : public WindowProducerSession {
 public:
  ScriptedProducer(std::shared_ptr<CallLog> log, Script script)
      : log_(std::move(log)), script_(std::move(script)) {}
  ~ScriptedProducer() override { log_->Record(CallLog::kDestroy); }

  void PrepareSession() override {
    log_->Record(CallLog::kPrepare);
    script_.prepare();
  }
  bool IsExhausted() const override {
    const std::size_t n = log_->Count(CallLog::kExhausted);
    log_->Record(CallLog::kExhausted);
    return script_.exhausted(n);
  }
  std::optional<WindowPayload> ProduceNext() override {
    const std::size_t n = log_->Count(CallLog::kProduce);
    log_->Record(CallLog::kProduce);
    return script_.produce(n);
  }
  std::optional<WindowPayload> Finalize() override {
    const std::size_t n = log_->Count(CallLog::kFinalize);
    log_->Record(CallLog::kFinalize);
    return script_.finalize(n);
  }

 private:
  std::shared_ptr<CallLog> log_;
  Script script_;
};

// A scripted producer with its call log, ready to hand to a buffer.
struct Recorded {
  std::shared_ptr<CallLog> log = std::make_shared<CallLog>();
  std::unique_ptr<ScriptedProducer> producer;
  explicit Recorded(Script script = Script())
      : producer(std::make_unique<ScriptedProducer>(log, std::move(script))) {}
};

}  // namespace corvane::control::window::testing
