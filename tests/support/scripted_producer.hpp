// Test doubles for the window buffers: a producer whose answers are scripted by functions of the
// call number and whose calls are counted, and the small windows it yields.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "support/detached_call.hpp"
#include "window/producers.hpp"

namespace corvane::control::window::testing {

// One sample of one joint holding `value`, covering [start, start + rows).
inline WindowPayload MakeWindow(double value, std::size_t start = 0, Eigen::Index rows = 1) {
  WindowPayload window;
  window.positions = SampleMatrix::Constant(rows, 1, value);
  window.start_index = start;
  window.stop_index = start + static_cast<std::size_t>(rows);
  return window;
}

inline double ValueOf(const WindowPayload& window) { return window.positions(0, 0); }

// The what() of the `Error` that `call` throws, or "no error". Another exception type passes.
template <typename Error, typename Call>
std::string MessageOf(Call call) {
  try {
    call();
  } catch (const Error& error) {
    return error.what();
  }
  return "no error";
}

// Counts of the calls a ScriptedProducer received. It outlives the producer (which the buffer
// owns), and lets a test wait, up to kHangLimit, until a count is reached.
class CallLog {
 public:
  enum Call { kPrepare, kExhausted, kProduce, kFinalize, kDestroy, kCallKinds };

  // Counts the call and returns its number (0 for the first call of its kind).
  std::size_t Record(Call call) {
    std::size_t number = 0;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      number = counts_[call]++;
    }
    cv_.notify_all();
    return number;
  }
  std::size_t Count(Call call) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return counts_[call];
  }
  bool WaitFor(Call call, std::size_t count) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, testing_support::kHangLimit, [&] { return counts_[call] >= count; });
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable cv_;
  std::size_t counts_[kCallKinds] = {};
};

// By default: prepares, is never exhausted, yields MakeWindow(n, n) on call n, has no tail.
struct Script {
  using Windows = std::function<std::optional<WindowPayload>(std::size_t)>;
  std::function<void()> prepare = [] {};
  std::function<bool()> exhausted = [] { return false; };
  Windows produce = [](std::size_t n) { return MakeWindow(static_cast<double>(n), n); };
  Windows finalize = [](std::size_t) { return std::nullopt; };
};

// `mainline` windows valued 0, 1, ..., exhausted after them, then `tail` windows that carry on
// the numbering.
inline Script FiniteScript(std::size_t mainline, std::size_t tail = 0) {
  Script script;
  auto produced = std::make_shared<std::size_t>(0);
  script.exhausted = [mainline, produced] { return *produced >= mainline; };
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

// `script` with its ProduceNext answers passed through `change(n, window)`.
template <typename Change>
Script Altered(Script script, Change change) {
  script.produce = [produce = script.produce, change](std::size_t n) {
    return change(n, produce(n));
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
    log_->Record(CallLog::kExhausted);
    return script_.exhausted();
  }
  std::optional<WindowPayload> ProduceNext() override {
    return script_.produce(log_->Record(CallLog::kProduce));
  }
  std::optional<WindowPayload> Finalize() override {
    return script_.finalize(log_->Record(CallLog::kFinalize));
  }

 private:
  std::shared_ptr<CallLog> log_;
  Script script_;
};

// A ScriptedProducer that also writes into recycled storage, counting the calls that were handed
// a window with storage in it, and offers a ready signal, which the test raises with Raise().
class RecyclingScriptedProducer final : public ScriptedProducer,
                                        public RecyclingWindowProducer,
                                        public ReadySignallingProducer {
 public:
  using ScriptedProducer::ScriptedProducer;
  bool ProduceNextInto(WindowPayload& window) override {
    if (window.positions.size() > 0) ++handed_storage_;
    std::optional<WindowPayload> produced = ProduceNext();
    if (!produced) return false;
    window.positions = produced->positions;  // into the storage held, which has that shape
    window.start_index = produced->start_index;
    window.stop_index = produced->stop_index;
    window.metadata.clear();
    return true;
  }
  void SetReadySignal(std::function<void()> signal) override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      signal_ = std::move(signal);
      ++signal_changes_;
    }
    cv_.notify_all();
  }
  // Waits, up to kHangLimit, until the signal has been set or removed `changes` times in all.
  bool WaitForSignalChanges(std::size_t changes) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, testing_support::kHangLimit,
                        [&] { return signal_changes_ >= changes; });
  }
  bool HasSignal() {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<bool>(signal_);
  }
  void Raise() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (signal_) signal_();
  }
  std::size_t handed_storage() const { return handed_storage_; }  // worker's count; after Join

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  std::function<void()> signal_;
  std::size_t signal_changes_ = 0;
  std::size_t handed_storage_ = 0;
};

// A scripted producer with its call log, ready to hand to a buffer.
struct Recorded {
  std::shared_ptr<CallLog> log = std::make_shared<CallLog>();
  std::unique_ptr<ScriptedProducer> producer;
  explicit Recorded(Script script = Script())
      : producer(std::make_unique<ScriptedProducer>(log, std::move(script))) {}
};

}  // namespace corvane::control::window::testing
