// Window producers: the session interface that the asynchronous buffer drives, its three
// implementations, and the two interfaces through which engines outside the library are reached.
//
// Session contract: PrepareSession() once; while IsExhausted() is false, ProduceNext() (an empty
// result means "nothing ready yet", not the end); once exhausted, Finalize() until it returns
// an empty result. Every window a producer returns must pass ValidateWindowPayload.
// Producers are used from one thread at a time; they take no locks of their own.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "native/export.hpp"
#include "window/records.hpp"
#include "window/replacement.hpp"

namespace corvane::control::window {

class AppendableReferenceBuffer;

// The source of windows for an AsyncWindowBuffer.
class CORVANE_EXPORT WindowProducerSession {
 public:
  virtual ~WindowProducerSession() = default;
  // Starts the session; called once, before any other operation.
  virtual void PrepareSession() = 0;
  // The next mainline window, or an empty result when none is ready at this moment.
  virtual std::optional<WindowPayload> ProduceNext() = 0;
  // True once no further mainline window will come.
  virtual bool IsExhausted() const = 0;
  // After exhaustion: the next final (tail) window, or an empty result that ends the session.
  virtual std::optional<WindowPayload> Finalize() = 0;
};

// A producer that can write its next window into storage it is handed, reusing the matrices and
// metadata entries of an earlier window instead of allocating new ones. A buffer's worker calls
// ProduceNextInto in place of ProduceNext when its producer offers it.
class CORVANE_EXPORT RecyclingWindowProducer {
 public:
  virtual ~RecyclingWindowProducer() = default;
  // ProduceNext(), written into `window`: true when a window was written, false when none is
  // ready (then `window` holds nothing the caller may use). `window` may hold any earlier window,
  // or nothing; every field of the result is written, and metadata entries the producer does not
  // write are removed. Throws as ProduceNext does.
  virtual bool ProduceNextInto(WindowPayload& window) = 0;
};

// A producer that can tell a sleeping buffer worker when a window may have become ready, so that
// a worker set to wait when nothing is ready (WorkerIdle) sleeps until then instead of polling.
class CORVANE_EXPORT ReadySignallingProducer {
 public:
  virtual ~ReadySignallingProducer() = default;
  // Installs `signal`, which the producer calls, from any thread, whenever a window may have
  // become ready; an empty function removes it. The worker installs it before its first
  // ProduceNext and removes it when it ends; the producer must not call a removed signal.
  virtual void SetReadySignal(std::function<void()> signal) = 0;
};

// Replays two fixed lists of precomputed windows: the mainline through ProduceNext, the tail
// through Finalize. Every window handed out is a copy of the stored one.
class CORVANE_EXPORT FiniteWindowProducer : public WindowProducerSession {
 public:
  // Validates every mainline window, then every tail window, in order.
  // Throws std::invalid_argument (the validator's message) at the first invalid window.
  FiniteWindowProducer(std::vector<WindowPayload> mainline, std::vector<WindowPayload> tail);
  // Takes the other producer's state; the other holds none afterwards.
  FiniteWindowProducer(FiniteWindowProducer&& other) noexcept;
  // Takes the other producer's state and drops the state held before.
  FiniteWindowProducer& operator=(FiniteWindowProducer&& other) noexcept;
  FiniteWindowProducer(const FiniteWindowProducer&) = delete;
  FiniteWindowProducer& operator=(const FiniteWindowProducer&) = delete;
  ~FiniteWindowProducer() override;

  // Throws std::runtime_error when called a second time.
  void PrepareSession() override;
  // A copy of the next mainline window, or empty once exhausted.
  // Throws std::runtime_error before PrepareSession().
  std::optional<WindowPayload> ProduceNext() override;
  // True once every mainline window has been handed out; needs no preparation.
  bool IsExhausted() const override;
  // A copy of the next tail window, or empty once the tail is used up. Throws
  // std::runtime_error before PrepareSession() or while mainline windows remain.
  std::optional<WindowPayload> Finalize() override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// A trajectory-shaping engine, implemented outside this library.
class CORVANE_EXPORT TrajectoryWindowHandle {
 public:
  virtual ~TrajectoryWindowHandle() = default;
  // Gets the engine ready; the producer calls it once it has returned normally.
  virtual void Prepare() = 0;
  // Moves the engine forward; the producer always passes a step count of 1.
  virtual void Advance(std::optional<std::size_t> steps) = 0;
  // The next shaped window, or an empty result when none is ready.
  virtual std::optional<ShapedTrajectoryWindow> NextWindow() = 0;
  // False once no more windows will come.
  virtual bool HasMoreWindows() const = 0;
  // Abandons the trajectory; never called by this library.
  virtual void Cancel() = 0;
  // Ends the engine's session; the producer calls it once it has returned normally.
  virtual void Finalize() = 0;
};

// Pulls shaped windows from a TrajectoryWindowHandle and turns each into a WindowPayload whose
// metadata holds exactly "is_tail" ("true" or "false"). Measures and validates nothing itself.
class CORVANE_EXPORT ShaperWindowProducer : public WindowProducerSession {
 public:
  // Takes ownership of the handle (the caller's pointer is emptied even on failure).
  // Throws corvane::native::InvalidArgumentError when the handle is null.
  explicit ShaperWindowProducer(std::unique_ptr<TrajectoryWindowHandle> handle);
  // Takes the other producer's state; the other holds none afterwards.
  ShaperWindowProducer(ShaperWindowProducer&& other) noexcept;
  // Takes the other producer's state; the handle held before is deleted without Finalize().
  ShaperWindowProducer& operator=(ShaperWindowProducer&& other) noexcept;
  ShaperWindowProducer(const ShaperWindowProducer&) = delete;
  ShaperWindowProducer& operator=(const ShaperWindowProducer&) = delete;
  // Finalizes the handle if that has not happened yet, then deletes it.
  ~ShaperWindowProducer() override;

  // Prepares the handle on the first successful call; later calls do nothing.
  void PrepareSession() override;
  // Polls the handle; when nothing is ready, advances it by one step and polls once more.
  std::optional<WindowPayload> ProduceNext() override;
  // The negation of the handle's HasMoreWindows(), asked on every call.
  bool IsExhausted() const override;
  // Finalizes the handle once; always returns an empty result.
  std::optional<WindowPayload> Finalize() override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// A lifted model-predictive-control solver, implemented outside this library.
class CORVANE_EXPORT LiftedMpcSolveSession {
 public:
  virtual ~LiftedMpcSolveSession() = default;
  // Gets the solver ready; called by the producer's PrepareSession().
  virtual void Prepare() = 0;
  // Solves one request: must return exactly the request's "apply_samples" rows as a window that
  // passes ValidateWindowPayload and spans [0, rows) or any range matching its row count.
  virtual WindowPayload Solve(const WindowSlice& request) = 0;
  // Ends the solver's session; called at most once after it has returned normally.
  virtual void Finalize() = 0;
};

// A lifted-MPC solver that can write its answer into storage it is handed, reusing the matrices of
// an earlier answer. The lifted-MPC producer calls SolveInto in place of Solve when its solver
// offers it.
class CORVANE_EXPORT RecyclingLiftedMpcSolveSession : public LiftedMpcSolveSession {
 public:
  // Solve(request), written into `window`, which may hold any earlier window. Writes every field
  // that Solve's answer would carry; metadata entries it does not write are left as they are.
  // Throws as Solve does.
  virtual void SolveInto(const WindowSlice& request, WindowPayload& window) = 0;
};

// Runs a LiftedMpcSolveSession over a reference that the caller keeps appending to an
// AppendableReferenceBuffer, one apply window per ProduceNext call. When the caller has not yet
// appended enough reference, the last sample is held instead of waiting; only the very first
// sample is waited for. It can resume after a replacement when its solve session also implements
// ResumableSolveSession.
class CORVANE_EXPORT AppendableLiftedMpcWindowProducer : public WindowProducerSession,
                                                         public RecyclingWindowProducer,
                                                         public ResumableWindowProducer {
 public:
  // apply_samples: rows applied per window, 1 to lookahead_samples.
  // lookahead_samples: rows of reference handed to the solver per request.
  // sample_time_s: [s] sample period, finite and positive.
  // global_start_index: global index of reference sample 0.
  // Throws std::invalid_argument for a null pointer, then a bad apply/lookahead pair, then a bad
  // sample period, then a reference retention below apply_samples, which the hold fills.
  // From construction on the producer marks the reference samples from its cursor on as not read
  // yet (AppendableReferenceBuffer::KeepFrom): over a retention, an append that would drop one
  // of them throws, and the stream goes on.
  AppendableLiftedMpcWindowProducer(std::unique_ptr<LiftedMpcSolveSession> solve_session,
                                    std::shared_ptr<AppendableReferenceBuffer> reference_buffer,
                                    std::size_t apply_samples, std::size_t lookahead_samples,
                                    double sample_time_s, std::size_t global_start_index);
  // Takes the other producer's state; the other holds none afterwards.
  AppendableLiftedMpcWindowProducer(AppendableLiftedMpcWindowProducer&& other) noexcept;
  // Takes the other producer's state; the solver held before is deleted without Finalize().
  AppendableLiftedMpcWindowProducer& operator=(AppendableLiftedMpcWindowProducer&& other) noexcept;
  AppendableLiftedMpcWindowProducer(const AppendableLiftedMpcWindowProducer&) = delete;
  AppendableLiftedMpcWindowProducer& operator=(const AppendableLiftedMpcWindowProducer&) = delete;
  // Finalizes a prepared, unfinalized solver (discarding its exception), then releases it.
  ~AppendableLiftedMpcWindowProducer() override;

  // Prepares the solver. Throws std::runtime_error when called a second time.
  void PrepareSession() override;
  // Solves the next apply window; empty when no reference remains to apply. Blocks only until
  // the reference holds its first sample or is finished. Throws std::runtime_error before
  // PrepareSession() or when the solver answers with the wrong row count, and
  // std::invalid_argument when the request or the answer is malformed.
  std::optional<WindowPayload> ProduceNext() override;
  // ProduceNext(), written into `window`; with a RecyclingLiftedMpcSolveSession, the request and
  // the answer reuse storage, so that a steady stream allocates nothing per window.
  bool ProduceNextInto(WindowPayload& window) override;
  // True when the reference is finished and every stored sample has been applied.
  bool IsExhausted() const override;
  // Finalizes the solver once; always returns an empty result.
  std::optional<WindowPayload> Finalize() override;

  // Whether the solve session implements ResumableSolveSession and can resume.
  bool CanResume() const override;
  // global_start_index.
  std::size_t FirstGlobalIndex() const override;
  // Moves the cursor to start_index and resumes the solver there, handing it the command at
  // start_index - 1 and the reference rows before the join that it asks for, as far as a
  // retention has kept them. Throws std::runtime_error before PrepareSession() or when the solver
  // cannot resume, and std::invalid_argument when start_index is before global_start_index or
  // beyond the stored reference.
  void Resume(std::size_t start_index,
              const std::optional<CommandSample>& previous_command) override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace corvane::control::window
