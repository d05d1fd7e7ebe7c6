// Arbitrary lifecycles of an AsyncWindowBuffer over a scripted producer that yields windows,
// yields nothing, yields an invalid window, runs out, returns tail windows, or throws standard and
// non-standard exceptions. Every wait is bounded, so a hang shows as a libFuzzer time-out. The
// windows come out in production order, none lost and none twice, and a failure comes only after
// every queued window. An input that destroys that buffer goes on with a stream that is replaced
// and stopped smoothly as it runs: across every join, no window is lost or handed out twice.
#include <atomic>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_input.hpp"
#include "support/follow_reference_solver.hpp"
#include "support/scripted_producer.hpp"
#include "window/async_buffer.hpp"

namespace corvane::fuzzing {
namespace {

using namespace control::window;
using testing::CallLog;

constexpr char kScriptedFailure[] = "scripted failure";

// The producer's answers, decoded from the input. Its k-th valid window holds the value k, and
// `produced` counts the valid windows it handed out. An endless producer would fill an unbounded
// queue (`limit` 0) as fast as it runs, and a run would have no bound: it gets a capacity.
std::unique_ptr<WindowProducerSession> ScriptedProducer(
    FuzzInput& in, const std::shared_ptr<std::atomic<std::size_t>>& produced, std::size_t& limit) {
  auto log = std::make_shared<CallLog>();
  const bool prepare_fails = in.OneIn(4), finalize_fails = in.OneIn(4);
  const std::size_t calls = in.Below(48), tail = in.Below(4);  // from 40 calls on: never exhausted
  if (calls >= 40 && limit == 0) limit = 4;
  std::vector<std::uint8_t> answers(1 + in.Below(8));
  for (std::uint8_t& answer : answers) answer = in.Byte();

  const auto next = [produced] { return testing::MakeWindow(double((*produced)++)); };
  testing::Script script;
  script.prepare = [log, prepare_fails] {
    if (prepare_fails && log->Count(CallLog::kPrepare) == 1) throw std::runtime_error("prepare");
  };
  script.exhausted = [log, calls] { return calls < 40 && log->Count(CallLog::kProduce) >= calls; };
  script.produce = [answers, next](std::size_t n) -> std::optional<WindowPayload> {
    const int answer = answers[n % answers.size()] % 16;
    if (answer == 10 || answer == 11) return std::nullopt;
    if (answer == 12) return testing::MakeWindow(std::numeric_limits<double>::quiet_NaN());
    if (answer == 13) throw std::runtime_error(kScriptedFailure);
    if (answer == 14) throw 14;
    return next();
  };
  script.finalize = [tail, finalize_fails, next](std::size_t n) -> std::optional<WindowPayload> {
    if (n < tail) return next();
    if (finalize_fails) throw std::logic_error(kScriptedFailure);
    return std::nullopt;
  };
  return std::make_unique<testing::ScriptedProducer>(log, std::move(script));
}

struct Lifecycle {
  std::shared_ptr<std::atomic<std::size_t>> produced = std::make_shared<std::atomic<std::size_t>>();
  std::optional<AsyncWindowBuffer> buffer;
  std::size_t delivered = 0;
  bool started = false;

  // Pops with `pop`; returns whether the buffer is drained: empty, or failed.
  template <typename PopCall>
  bool Pop(PopCall pop) {
    try {
      const std::optional<WindowPayload> window = pop();
      if (window && testing::ValueOf(*window) != double(delivered++)) {
        Fail("a window came out of order, twice, or after a lost one");
      }
      return !window;
    } catch (const std::exception& error) {
      CheckFailure(error.what());
    } catch (int) {
      CheckFailure("Unknown native window producer failure.");
    }
    return true;
  }
  // Pop threw `text`: it must be the worker's own failure, and come after every window produced.
  void CheckFailure(const std::string& text) const {
    if (buffer->LastError() != text) Fail("Pop threw something other than the worker's failure");
    if (buffer->HasBufferedData() || delivered != *produced) Fail("a failure overtook a window");
  }
  // Expects `call` to throw a std::runtime_error with `message`.
  template <typename Call>
  static void ExpectRefusal(Call call, const char* message) {
    try {
      call();
    } catch (const std::runtime_error& error) {
      if (message == std::string(error.what())) return;
    }
    Fail(message);
  }

  void Prefill(std::size_t windows) {
    if (started) {
      return ExpectRefusal([&] { buffer->Prefill(windows); },
                           "Prefill must be called before Start().");
    }
    try {
      if (buffer->Prefill(windows) > windows) Fail("Prefill queued more than asked");
    } catch (const std::exception&) {  // the producer's failures reach the caller unchanged
    } catch (int) {
    }
  }
  void Start() {
    if (started) {
      return ExpectRefusal([&] { buffer->Start(); },
                           "AsyncWindowBuffer::Start() can only be called once.");
    }
    buffer->Start();
    started = true;
  }
  void Join(std::chrono::nanoseconds timeout) {
    if (buffer->Join(timeout) && started && buffer->IsComplete() == buffer->HasBufferedData()) {
      Fail("a joined buffer is complete exactly when its queue is empty");
    }
  }
  // The buffer moves out, is assigned over another running buffer, and moves back.
  void Move() {
    AsyncWindowBuffer moved(std::move(*buffer));
    AsyncWindowBuffer running(testing::Recorded().producer);
    running.Start();
    running = std::move(moved);
    *buffer = std::move(running);
  }
  // Once the worker has ended, every window produced comes out, then the failure if any.
  void CloseAndDrain() {
    buffer->Close();
    while (!Pop([&] { return buffer->PopNowait(); })) {
    }
    if (delivered != *produced) Fail("a produced window was lost");
  }

  // One call chosen by the input; false once the buffer has been destroyed.
  bool Step(FuzzInput& input) {
    using Call = void (*)(Lifecycle&, FuzzInput&);
    static constexpr Call kCalls[] = {
        [](Lifecycle& run, FuzzInput& in) { run.Prefill(in.Below(8)); },
        [](Lifecycle& run, FuzzInput&) { run.Start(); },
        [](Lifecycle& run, FuzzInput&) { run.buffer->Stop(); },
        [](Lifecycle& run, FuzzInput& in) {
          run.Pop([&] { return run.buffer->Pop(in.ShortTimeout()); });
        },
        [](Lifecycle& run, FuzzInput&) { run.Pop([&] { return run.buffer->PopNowait(); }); },
        [](Lifecycle& run, FuzzInput& in) { run.Join(in.ShortTimeout()); },
        [](Lifecycle& run, FuzzInput&) { run.buffer->Close(); },
        [](Lifecycle& run, FuzzInput&) { run.Move(); },
        [](Lifecycle& run, FuzzInput&) {  // the history counts only windows handed out
          if (run.buffer->Qualify(1.0).total_windows > *run.produced) Fail("history too long");
        },
    };
    const std::size_t call = input.Below(std::size(kCalls) + 1);
    if (call == std::size(kCalls)) return buffer.reset(), false;
    kCalls[call](*this, input);
    return true;
  }
};

// The streaming lifecycle: the input's calls race the worker; a refused call changes nothing.
void RunReplacements(FuzzInput& in) {
  auto reference = std::make_shared<AppendableReferenceBuffer>(1);
  AppendableWindowBuffer buffer(std::make_unique<AppendableLiftedMpcWindowProducer>(
                                    std::make_unique<testing::ResumableFollowSolver>(), reference,
                                    1 + in.Below(4), 4, 0.001, 0),
                                reference, 0, 1 + in.Below(4));
  buffer.Start();
  std::size_t next = 0;
  const auto pop = [&](std::chrono::nanoseconds timeout) {
    const std::optional<WindowPayload> window = buffer.Pop(timeout);
    if (window && std::exchange(next, window->stop_index) != window->start_index) {
      Fail("a window was lost or repeated across a join");
    }
    return window.has_value();
  };
  while (!in.Empty()) {
    const std::size_t call = in.Below(4);
    const SampleMatrix rows = SampleMatrix::Constant(in.Dimension(), 1, in.Value());
    try {
      if (call == 0) buffer.AppendReference(rows);
      if (call == 1) buffer.ReplaceReference(buffer.EarliestReplaceableIndex() + in.Below(8), rows);
      if (call == 2) buffer.StopSmoothly(in.Below(4));
    } catch (const std::exception&) {  // a bad argument, a moved earliest index, an ended stream
    }
    if (call == 3) pop(in.ShortTimeout());
  }
  buffer.Finish();
  while (pop(std::chrono::seconds(10))) {
  }
  if (next != buffer.AvailableReferenceSamples()) Fail("the windows stop short of the reference");
}

}  // namespace

// A buffer with the input's capacity, producer and prefill count, decoded in this order under
// every compiler, then the input's calls until it runs out or destroys the buffer (the rest of
// the input then drives a stream with replacements); a buffer left is closed and drained.
void RunInput(FuzzInput& in) {
  Lifecycle run;
  std::size_t limit = in.OneIn(3) ? 0 : 1 + in.Below(4);  // 0: unbounded
  auto producer = ScriptedProducer(in, run.produced, limit);
  run.buffer.emplace(std::move(producer), in.Below((limit ? limit : 4) + 1),
                     limit ? std::optional<std::size_t>(limit) : std::nullopt);
  while (!in.Empty()) {
    if (!run.Step(in)) return RunReplacements(in);
  }
  run.CloseAndDrain();
}

}  // namespace corvane::fuzzing
