// The thread-safe, growing store of reference samples for streaming.
//
// The caller appends blocks of samples (one row per sample, one column per joint) while the
// system runs and finally calls Finish(). The lifted-MPC producer waits for the first sample,
// reads padded windows and holds the last sample when the caller falls behind. Sample i is row i
// of the store; a row, once stored, never changes and is never removed, unless the buffer was
// built with a retention, which drops the oldest samples.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>

#include "native/export.hpp"
#include "window/records.hpp"

namespace corvane::control::window {

// The samples one append added: the half-open range [start_index, stop_index).
struct AppendedRange {
  std::size_t start_index = 0;  // index of the first sample appended
  std::size_t stop_index = 0;   // one past the last; the new number of available samples
};

// A copied stretch of reference, padded at its end by repeating the last available sample.
struct ReferenceWindow {
  SampleMatrix positions;                    // [stop - start, joints]
  std::size_t terminal_padding_samples = 0;  // trailing rows that repeat the last sample
};

// Shared (std::shared_ptr) by the caller, the lifted-MPC producer and the AppendableWindowBuffer.
// Every operation may be called from any thread; each holds the buffer's own lock for its
// duration only and never calls out while holding it.
class CORVANE_EXPORT AppendableReferenceBuffer {
 public:
  // An empty, open buffer. joint_count, when given, fixes the column count now; otherwise the
  // first non-empty append fixes it. Throws std::invalid_argument when joint_count is 0.
  explicit AppendableReferenceBuffer(std::optional<std::size_t> joint_count = std::nullopt);
  // As above, but keeping only the most recent retention_samples samples, so that memory stays
  // bounded (retention_samples rows of joints doubles) and an append costs the same at any stream
  // length. Sample indices stay global: available_samples() counts every sample ever stored, and
  // retained samples read exactly as they would without a retention. WindowWithTerminalPadding
  // from a sample that has been dropped throws std::invalid_argument naming the first retained
  // sample; PositionsCopy() returns the retained samples, oldest first (the last
  // min(available_samples(), retention_samples) samples). Throws std::invalid_argument when
  // joint_count is 0, then when retention_samples is 0.
  AppendableReferenceBuffer(std::optional<std::size_t> joint_count, std::size_t retention_samples);
  // Takes the other buffer's state; the other holds none afterwards.
  AppendableReferenceBuffer(AppendableReferenceBuffer&& other) noexcept;
  // Takes the other buffer's state and drops the state held before.
  AppendableReferenceBuffer& operator=(AppendableReferenceBuffer&& other) noexcept;
  AppendableReferenceBuffer(const AppendableReferenceBuffer&) = delete;
  AppendableReferenceBuffer& operator=(const AppendableReferenceBuffer&) = delete;
  ~AppendableReferenceBuffer();

  // Appends the rows of `command` and wakes waiters. An empty block changes nothing and returns
  // [n, n). Throws std::invalid_argument for a block without columns, with a non-finite value or
  // with the wrong column count, and std::runtime_error after Finish(), or when the retention
  // would drop a sample that a reader has yet to read (see KeepFrom); nothing is stored then.
  AppendedRange AppendReference(const SampleMatrix& command);
  // Replaces every sample from start_index on with the rows of `samples` (possibly none, which
  // drops them), then finishes the stream when `finish` is true, and wakes waiters. Returns the
  // samples written, [start_index, start_index + rows). Throws std::invalid_argument when
  // start_index is beyond the stored samples or dropped by the retention (naming the first
  // retained sample), and for a block that AppendReference would refuse (with its messages);
  // std::runtime_error after Finish(). A failed call changes nothing.
  AppendedRange ReplaceReference(std::size_t start_index, const SampleMatrix& samples,
                                 bool finish = false);
  // Ends the stream: later non-empty appends fail and waits no longer block. Repeatable.
  void Finish();
  // Repeats the last sample until target_samples are stored; returns how many were added.
  // Allowed after Finish(). Throws std::invalid_argument before the first sample, and
  // std::runtime_error when the retention would drop a sample that a reader has yet to read.
  std::size_t ExtendHoldTo(std::size_t target_samples);
  // A copy of samples [start, stop); rows past the stored samples repeat the last one.
  // Throws std::invalid_argument when start >= stop, when start is not a stored sample yet, or
  // when it has been dropped by a retention.
  ReferenceWindow WindowWithTerminalPadding(std::size_t start, std::size_t stop) const;
  // WindowWithTerminalPadding(start, stop), written into `positions` (resized to stop - start
  // rows, which allocates nothing when it has that shape already); returns the padding rows.
  // Throws as WindowWithTerminalPadding does, leaving `positions` unchanged.
  std::size_t CopyWindowWithTerminalPadding(std::size_t start, std::size_t stop,
                                            SampleMatrix& positions) const;
  // Blocks until at least `count` samples are stored, the stream is finished, or the time-out
  // (steady clock; absent: no limit; zero or negative: no wait) passes. Returns whether at least
  // `count` samples are stored.
  bool WaitUntilSamples(std::size_t count,
                        std::optional<std::chrono::nanoseconds> timeout = std::nullopt);
  // Marks the samples from first_unread on as not read yet: with a retention, an append or a hold
  // that would drop one of them throws std::runtime_error naming it and stores nothing, so the
  // caller may append again once the reader has moved the mark on. The lifted-MPC producer keeps
  // the mark at its cursor from its construction on. Without a retention nothing is dropped and
  // the mark changes nothing.
  void KeepFrom(std::size_t first_unread);
  // How many samples an append or a hold may add now without dropping one that has not been read
  // yet; absent when nothing limits it (no retention, or no mark).
  std::optional<std::size_t> appendable_samples() const;
  // The retention given at construction; absent when every sample is kept.
  std::optional<std::size_t> retention_samples() const;
  // Number of samples stored, held samples included.
  std::size_t available_samples() const;
  // Whether Finish() has been called.
  bool is_finished() const;
  // Index of the oldest sample still stored: 0 without a retention.
  std::size_t first_retained_sample() const;
  // A copy of every stored sample; with a retention, of the retained ones, oldest first.
  SampleMatrix PositionsCopy() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace corvane::control::window
