// The asynchronous window buffer: one producer on a worker thread of its own, a first-in,
// first-out queue (bounded if asked) and any number of consumers.
//
// Lifecycle: construct, optionally Prefill() on the caller's thread, Start(), Pop() windows until
// IsComplete(). Stop() asks the worker to end at its next check, Join() waits for it, Close()
// does both, and so does the destructor. A failure on the worker reaches the consumer after every
// window queued before it: Pop() then rethrows it on every call and LastError() gives its text.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "native/export.hpp"
#include "window/producers.hpp"
#include "window/records.hpp"
#include "window/reference_buffer.hpp"
#include "window/replacement.hpp"
#include "window/timing_log.hpp"
#include "window/worker_settings.hpp"

namespace corvane::control::window {

// Whether window production keeps up with real time, judged on the recorded history.
struct QualificationReport {
  bool qualified = true;  // no window over the limit, all durations positive, no underrun
  double compute_fraction_limit = 0.0;  // the limit asked for (compute seconds per window second)
  std::size_t prefill_windows = 0;      // the buffer's prefill_windows constructor argument
  double max_compute_time_s = 0.0;      // [s] largest compute time charged to a window
  double p99_compute_time_s = 0.0;      // [s] 0.99 quantile of the compute times, interpolated
  double min_margin_s = 0.0;            // [s] smallest running margin of playback over production
  std::size_t underrun_windows = 0;     // windows whose running margin is negative
  std::size_t total_windows = 0;        // windows produced through ProduceNext
  double total_compute_time_s = 0.0;    // [s] sum of the compute times
};

// Running totals over every window produced through ProduceNext in the buffer's life, kept exact
// whatever the statistics retention.
struct ProductionTotals {
  std::size_t total_windows = 0;      // windows produced through ProduceNext
  double total_compute_time_s = 0.0;  // [s] sum of their compute times, added in production order
  double max_compute_time_s = 0.0;    // [s] largest compute time charged to one; 0 before the first
};

// Runs one producer on a worker thread and hands its windows to consumers.
// Every public operation may be called from any thread, except that Start, Join, Close, the
// destructor and the move operations must not run concurrently on one buffer. Prefill and Start
// never drive the producer at once: each refuses while the other has begun.
class CORVANE_EXPORT AsyncWindowBuffer {
 public:
  // prefill_windows: windows the worker queues back to back before its steady loop.
  // max_buffered_windows: queue capacity; absent means unbounded.
  // Takes the producer even on failure. Throws std::invalid_argument for a null producer, a
  // capacity of 0, or a capacity below prefill_windows (checked in that order).
  AsyncWindowBuffer(std::unique_ptr<WindowProducerSession> producer,
                    std::size_t prefill_windows = 0,
                    std::optional<std::size_t> max_buffered_windows = std::nullopt);
  // As above, but keeps the statistics of only the most recent statistics_retention_windows
  // windows, so that their memory stays bounded on a stream that runs for days (16 bytes per
  // retained window plus at most 128 KB). Qualify() then judges the most recent min(produced,
  // statistics_retention_windows) windows: total_windows, total_compute_time_s,
  // max_compute_time_s, p99_compute_time_s and the compute-fraction test cover those windows
  // only, while each of their running margins (min_margin_s, underrun_windows) is the one the
  // whole history gives it, prefill credit included. Totals() stays exact over the whole life.
  // Throws as above, then std::invalid_argument when statistics_retention_windows is 0.
  AsyncWindowBuffer(std::unique_ptr<WindowProducerSession> producer, std::size_t prefill_windows,
                    std::optional<std::size_t> max_buffered_windows,
                    std::size_t statistics_retention_windows);
  // Takes the other buffer's state, a running worker included; the other holds none afterwards.
  AsyncWindowBuffer(AsyncWindowBuffer&& other) noexcept;
  // Stops and joins this buffer's worker, drops its state, then takes the other's.
  AsyncWindowBuffer& operator=(AsyncWindowBuffer&& other) noexcept;
  AsyncWindowBuffer(const AsyncWindowBuffer&) = delete;
  AsyncWindowBuffer& operator=(const AsyncWindowBuffer&) = delete;
  // Stops and joins the worker, then drops queued windows and the producer.
  virtual ~AsyncWindowBuffer();

  // Starts the worker thread. Throws std::runtime_error when called a second time or while
  // Prefill runs, and std::system_error when the thread cannot be created.
  void Start();
  // Start() with the worker thread scheduled as `settings` asks; they are in force before the
  // worker first calls the producer. settings.idle decides what the worker does when its producer
  // has nothing ready (see WorkerIdle). Throws std::runtime_error as Start() does, and
  // std::system_error, naming the setting, when the system refuses one (no permission, a CPU the
  // worker may not use, a name over 15 characters) or the thread cannot be created. After a
  // refusal no worker runs and the buffer may be started again.
  void Start(const WorkerSettings& settings);
  // Asks the worker to end at its next check and wakes every waiter; returns at once.
  // Queued windows stay queued.
  virtual void Stop();
  // Stop(), then Join() without a time-out.
  void Close();
  // Waits for the worker to end: without limit when `timeout` is absent, otherwise until the
  // steady-clock deadline. Returns false only when the deadline passed first. Requests no stop.
  bool Join(std::optional<std::chrono::nanoseconds> timeout = std::nullopt);
  // The oldest queued window. Waits (without limit when `timeout` is absent) until a window is
  // queued, the worker has finished or a stop was requested. Empty at the deadline or at the end;
  // at the end, rethrows the worker's failure, if any, on every call.
  std::optional<WindowPayload> Pop(std::optional<std::chrono::nanoseconds> timeout = std::nullopt);
  // Pop() with a zero time-out: never waits for a window.
  std::optional<WindowPayload> PopNowait();
  // The allocation-free pop of a real-time loop: waits as Pop(timeout) does, then swaps the oldest
  // window into `window` and returns true; false at the deadline or at the end (at an end with a
  // failure, rethrows it as Pop does). What `window` held before, typically the window the loop
  // has just played, goes back to the buffer, whose worker reuses its storage; so the loop neither
  // allocates nor frees, and a producer that writes into recycled storage neither. Unlike Pop, it
  // wakes a worker that waits for room only once the queue has fallen to half its capacity, so
  // that most calls make no system call.
  bool PopInto(WindowPayload& window,
               std::optional<std::chrono::nanoseconds> timeout = std::nullopt);
  // Whether any window is queued.
  bool HasBufferedData() const;
  // Whether the worker has finished and the queue is empty.
  bool IsComplete() const;
  // The text of the worker's failure, once there is one.
  std::optional<std::string> LastError() const;
  // Before Start(): produces up to max_windows windows on the calling thread and queues them,
  // ignoring the capacity. Returns how many were queued (fewer when the producer runs out or has
  // nothing ready). Throws std::runtime_error after Start(), and while another Prefill call runs
  // (one call at a time drives the producer); producer and validation errors pass through to the
  // caller.
  std::size_t Prefill(std::size_t max_windows);
  // Judges the history of produced windows against compute_fraction_limit (compute seconds per
  // second of window duration). A window that AppendableWindowBuffer::ReplaceReference discarded
  // is judged as produced, never as played: it counts in every figure and in the compute-fraction
  // test with the duration it was produced for, and its compute time is spent in the running
  // margin, but its duration adds nothing to the duration played. Throws std::invalid_argument
  // unless the limit is finite and positive.
  QualificationReport Qualify(double compute_fraction_limit);
  // Window count, total and largest compute time over the buffer's whole life, whatever the
  // statistics retention; a snapshot taken in constant time.
  ProductionTotals Totals() const;
  // Records the timing of every window queued from now on into `log` (see TimingLog), and keeps
  // a share of it. Must come before the first window is produced. Throws std::invalid_argument
  // for a null log or one attached to a buffer already, and std::runtime_error after Start(),
  // during or after a Prefill that produced a window, or when this buffer has a log already.
  void AttachTimingLog(std::shared_ptr<TimingLog> log);

 private:
  friend class AppendableWindowBuffer;  // replaces queued windows through the state
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// The buffer for streaming: an AsyncWindowBuffer that also holds a share of the reference buffer
// its producer reads, so that one object appends reference, ends the stream and pops windows.
class CORVANE_EXPORT AppendableWindowBuffer : public AsyncWindowBuffer {
 public:
  // Throws std::invalid_argument as AsyncWindowBuffer does, then for a null reference_buffer.
  AppendableWindowBuffer(std::unique_ptr<WindowProducerSession> producer,
                         std::shared_ptr<AppendableReferenceBuffer> reference_buffer,
                         std::size_t prefill_windows = 0,
                         std::optional<std::size_t> max_buffered_windows = std::nullopt);
  // As above, keeping the statistics of only the most recent statistics_retention_windows
  // windows, as the AsyncWindowBuffer constructor of that name does. Throws as above, with the
  // check of statistics_retention_windows (std::invalid_argument when 0) before that of
  // reference_buffer.
  AppendableWindowBuffer(std::unique_ptr<WindowProducerSession> producer,
                         std::shared_ptr<AppendableReferenceBuffer> reference_buffer,
                         std::size_t prefill_windows,
                         std::optional<std::size_t> max_buffered_windows,
                         std::size_t statistics_retention_windows);
  // Takes the other buffer's state, its worker and reference share included.
  AppendableWindowBuffer(AppendableWindowBuffer&& other) noexcept;
  // Finishes this buffer's reference, stops and joins its worker, then takes the other's state.
  AppendableWindowBuffer& operator=(AppendableWindowBuffer&& other) noexcept;
  AppendableWindowBuffer(const AppendableWindowBuffer&) = delete;
  AppendableWindowBuffer& operator=(const AppendableWindowBuffer&) = delete;
  // Finishes the reference buffer, so that a producer waiting for its first sample returns, then
  // stops and joins the worker.
  ~AppendableWindowBuffer() override;

  // Forwards to the reference buffer's AppendReference; its exceptions pass through.
  AppendedRange AppendReference(const SampleMatrix& command);
  // Ends the reference stream; the worker serves the rest and then finishes.
  void Finish();
  // Finishes the reference buffer first (releasing a producer waiting for samples), then stops
  // the worker.
  void Stop() override;
  // A copy of every stored reference sample; over a reference buffer with a retention, of the
  // retained ones, oldest first.
  SampleMatrix ReferencePositions() const;
  // Number of stored reference samples, held samples included.
  std::size_t AvailableReferenceSamples() const;
  // How many samples an append may add now without dropping one that the producer has yet to
  // read (AppendableReferenceBuffer::appendable_samples); absent when nothing limits it.
  std::optional<std::size_t> AppendableReferenceSamples() const;

  // Replaces every reference sample from global index start_index on with the rows of `samples`
  // (possibly none), and finishes the reference too when `finish` is true. Queued windows that
  // hold start_index or later are discarded and never handed out. A window that holds samples on
  // both sides of start_index is produced again from its start, over the old samples before
  // start_index and the new ones from it; production resumes at resume_index from the command
  // at resume_index - 1, so the command goes on without a jump. start_index may be any sample not
  // yet handed to a consumer: at least EarliestReplaceableIndex(), and at most one past the last
  // stored sample. Needs a producer that implements ResumableWindowProducer and can resume.
  // Throws std::invalid_argument when start_index is before EarliestReplaceableIndex() (naming
  // it), beyond the stored samples, or dropped by the reference's retention (naming the first
  // retained sample), and for samples that AppendReference would refuse (with its messages);
  // std::runtime_error when the producer cannot resume, after Finish(), or once the worker has
  // ended. A failed call leaves the stream unchanged.
  ReferenceReplacement ReplaceReference(std::size_t start_index, const SampleMatrix& samples,
                                        bool finish = false);
  // The earliest global index that ReplaceReference accepts at this moment: the end of the last
  // window handed out (the first sample of the stream before any). A snapshot: a pop on another
  // thread may raise it at once. Throws std::runtime_error when the producer cannot resume.
  std::size_t EarliestReplaceableIndex() const;
  // Ends the motion as soon as possible without a kink: from EarliestReplaceableIndex(), taken in
  // the same step, the reference goes on from the position, velocity and acceleration it has at
  // the sample before, brakes to rest with a velocity falling along a cubic, holds the position
  // it rests at for hold_samples samples and finishes, so that the solver brings the machine to
  // rest. The braking lasts the fewest samples in which no joint brakes harder or changes its
  // acceleration faster than the stored reference ever does (its largest second and third
  // differences), and at most as many samples as are stored. Those are read block by block on the
  // calling thread before the queued windows are taken out, so the stream goes on meanwhile
  // (about 90 ms per million samples of six joints; a retention bounds it). A reference that never
  // accelerates sets no such limit: its position at the sample before is held at once (and its
  // first sample, before any is handed out). Throws std::invalid_argument when hold_samples is 0
  // or before the first reference sample, and otherwise as ReplaceReference.
  ReferenceReplacement StopSmoothly(std::size_t hold_samples);
  // The replacements so far and the windows they discarded; a snapshot in constant time.
  // Discarded windows count in Totals() as produced windows. Qualify() judges each one against the
  // limit with the duration it was produced for, and counts its compute time as spent but its
  // duration as never played.
  ReplacementTotals Replacements() const;

 private:
  std::shared_ptr<AppendableReferenceBuffer> reference_buffer_;
};

}  // namespace corvane::control::window
