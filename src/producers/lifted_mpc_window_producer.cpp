// The appendable lifted-MPC producer: one solve per apply window over a streamed reference.
//
// The producer keeps only a cursor into the reference. Each window it asks the reference buffer
// (each call under that buffer's own lock) for the rows from the cursor on, holds the last sample
// when the caller has not appended enough yet, and hands the solver a padded lookahead slice. The
// solver is never called under a lock.
#include <algorithm>
#include <cmath>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>

#include "window/producers.hpp"
#include "window/reference_buffer.hpp"

namespace corvane::control::window {

struct CORVANE_HIDDEN AppendableLiftedMpcWindowProducer::Impl {
  std::unique_ptr<LiftedMpcSolveSession> solve_session;         // never null
  std::shared_ptr<AppendableReferenceBuffer> reference_buffer;  // never null
  std::size_t apply_samples = 0;       // rows applied per window, 1 to lookahead_samples
  std::size_t lookahead_samples = 0;   // rows of reference in each solve request
  double sample_time_s = 0.0;          // [s] sample period, finite and positive
  std::string sample_time_text;        // sample_time_s as "%f" text, made once: it never changes
  std::size_t global_start_index = 0;  // global index of reference sample 0
  std::size_t cursor = 0;              // first reference sample not yet applied
  bool prepared = false;               // the solver's Prepare() has returned
  bool finalized = false;              // the solver's Finalize() has returned
  WindowSlice request{};               // the last solve request; its storage is reused
  // The solver, when it can write into a recycled window; else null.
  RecyclingLiftedMpcSolveSession* recycling_solver =
      dynamic_cast<RecyclingLiftedMpcSolveSession*>(solve_session.get());
  ResumableSolveSession* resumable = nullptr;  // the solver as resumable, when it is and can

  bool IsExhausted() const;
  // How many rows the next window applies, or nothing when no reference remains to apply.
  std::optional<std::size_t> NextApplyCount();
  // Solves the window of `apply_count` rows at the cursor into `window` and stamps it; the cursor
  // stays.
  void SolveWindowAtCursor(std::size_t apply_count, WindowPayload& window);
  // Writes the request for the window of `apply_count` rows at the cursor into `request`.
  void BuildSolveRequest(std::size_t apply_count);
  // The resume point at reference index `start`: the reference rows before it that the solver
  // asks for (those still stored), and the command at start - 1.
  SolveResumePoint ResumePointAt(std::size_t start,
                                 const std::optional<CommandSample>& previous_command) const;
};

namespace {

// The metadata keys the producer writes, made once, so that a lookup builds no string (the longest
// would not fit in a string's own storage and would be allocated on every window).
const std::string kApplySamplesKey = "apply_samples";
const std::string kPaddingKey = "terminal_padding_samples";
const std::string kSampleTimeKey = "sample_time_s";

// The arguments are checked in a fixed order, so the first fault in it is the one reported.
void CheckConstructorArguments(const LiftedMpcSolveSession* solve_session,
                               const AppendableReferenceBuffer* reference_buffer,
                               std::size_t apply_samples, std::size_t lookahead_samples,
                               double sample_time_s) {
  if (solve_session == nullptr || reference_buffer == nullptr) {
    throw std::invalid_argument("solve_session and reference_buffer must not be null.");
  }
  if (apply_samples == 0 || apply_samples > lookahead_samples) {
    throw std::invalid_argument("lookahead_samples must be at least one apply window.");
  }
  if (!std::isfinite(sample_time_s) || sample_time_s <= 0.0) {
    throw std::invalid_argument("sample_time_s must be finite and positive.");
  }
}

// The hold stores up to apply_samples samples from the cursor on, and the retention must keep the
// cursor's sample while it does. Lookahead rows past the stored samples are padding, never
// stored, so the lookahead asks nothing of the retention.
void CheckRetention(const AppendableReferenceBuffer& reference_buffer, std::size_t apply_samples) {
  const std::optional<std::size_t> retention = reference_buffer.retention_samples();
  if (retention && *retention < apply_samples) {
    throw std::invalid_argument(
        "reference_buffer retention_samples must be at least apply_samples (" +
        std::to_string(apply_samples) + "), not " + std::to_string(*retention) + ".");
  }
}

// The number of stored reference samples once the apply window ending at `apply_stop` is
// covered. An open reference that is too short is extended by holding its last sample instead
// of waiting for the caller; a finished one is left as it is, so its last window comes out short.
std::size_t CoverApplyWindow(AppendableReferenceBuffer& reference, std::size_t apply_stop) {
  const std::size_t available = reference.available_samples();
  if (available >= apply_stop || reference.is_finished()) {
    return available;
  }
  reference.ExtendHoldTo(apply_stop);
  return reference.available_samples();
}

// Removes every metadata entry but those the producer stamps, so that a recycled window keeps
// nothing of its past; the stamped ones keep their storage.
void KeepStampedEntries(std::map<std::string, std::string>& metadata) {
  for (auto entry = metadata.begin(); entry != metadata.end();) {
    const bool stamped = entry->first == kSampleTimeKey || entry->first == kPaddingKey;
    entry = stamped ? std::next(entry) : metadata.erase(entry);
  }
}

// The solver's answer is checked as it came back, before anything of it is changed.
void CheckSolveResult(const WindowPayload& result, std::size_t apply_count) {
  ValidateWindowPayload(result);
  if (static_cast<std::size_t>(result.positions.rows()) != apply_count) {
    throw std::runtime_error("Lifted MPC solve output must match the requested apply count.");
  }
}

}  // namespace

bool AppendableLiftedMpcWindowProducer::Impl::IsExhausted() const {
  if (!reference_buffer->is_finished()) {
    return false;
  }
  return cursor >= reference_buffer->available_samples();
}

std::optional<std::size_t> AppendableLiftedMpcWindowProducer::Impl::NextApplyCount() {
  // Only the very first sample is waited for; false means the reference ended without one.
  if (!reference_buffer->WaitUntilSamples(1, std::nullopt) || IsExhausted()) {
    return std::nullopt;
  }
  const std::size_t available = CoverApplyWindow(*reference_buffer, cursor + apply_samples);
  // Each buffer call above took the lock on its own, so a Finish() may have come in between.
  if (available <= cursor) {
    return std::nullopt;
  }
  return std::min(apply_samples, available - cursor);
}

// The lookahead rows of reference from the cursor on, in reference indices, asking for
// `apply_count` rows back. The request's matrix and metadata entries are overwritten in place.
void AppendableLiftedMpcWindowProducer::Impl::BuildSolveRequest(std::size_t apply_count) {
  const std::size_t padding = reference_buffer->CopyWindowWithTerminalPadding(
      cursor, cursor + lookahead_samples, request.positions);
  request.start_index = cursor;
  request.stop_index = cursor + lookahead_samples;
  request.metadata[kApplySamplesKey] = std::to_string(apply_count);
  request.metadata[kPaddingKey] = std::to_string(padding);
}

void AppendableLiftedMpcWindowProducer::Impl::SolveWindowAtCursor(std::size_t apply_count,
                                                                  WindowPayload& window) {
  BuildSolveRequest(apply_count);
  ValidateWindowSlice(request);
  if (recycling_solver != nullptr) {
    KeepStampedEntries(window.metadata);
    recycling_solver->SolveInto(request, window);
  } else {
    window = solve_session->Solve(request);
  }
  CheckSolveResult(window, apply_count);

  // Stamp the answer with its global range and the producer's metadata; any other metadata of
  // the solver passes through.
  window.start_index = global_start_index + cursor;
  window.stop_index = window.start_index + apply_count;
  window.metadata[kSampleTimeKey] = sample_time_text;
  window.metadata[kPaddingKey] = request.metadata[kPaddingKey];
}

SolveResumePoint AppendableLiftedMpcWindowProducer::Impl::ResumePointAt(
    std::size_t start, const std::optional<CommandSample>& previous_command) const {
  SolveResumePoint point{start, previous_command, SampleMatrix()};
  // Rows that a retention has dropped are left out: the solver gets what is still stored.
  const std::size_t first = std::max(start - std::min(start, resumable->ResumeHistorySamples()),
                                     reference_buffer->first_retained_sample());
  if (first < start) {
    point.reference_before = reference_buffer->WindowWithTerminalPadding(first, start).positions;
  }
  return point;
}

// The solver is asked once whether it can resume: the answer is fixed for its life.
AppendableLiftedMpcWindowProducer::AppendableLiftedMpcWindowProducer(
    std::unique_ptr<LiftedMpcSolveSession> solve_session,
    std::shared_ptr<AppendableReferenceBuffer> reference_buffer, std::size_t apply_samples,
    std::size_t lookahead_samples, double sample_time_s, std::size_t global_start_index) {
  CheckConstructorArguments(solve_session.get(), reference_buffer.get(), apply_samples,
                            lookahead_samples, sample_time_s);
  CheckRetention(*reference_buffer, apply_samples);
  reference_buffer->KeepFrom(0);  // the cursor: no sample has been read yet
  impl_ = std::make_unique<Impl>(Impl{std::move(solve_session), std::move(reference_buffer),
                                      apply_samples, lookahead_samples, sample_time_s,
                                      std::to_string(sample_time_s), global_start_index});
  auto* resumable = dynamic_cast<ResumableSolveSession*>(impl_->solve_session.get());
  if (resumable != nullptr && resumable->CanResume()) impl_->resumable = resumable;
}

AppendableLiftedMpcWindowProducer::AppendableLiftedMpcWindowProducer(
    AppendableLiftedMpcWindowProducer&& other) noexcept = default;

// The state held before is dropped without finalising its solver: its share of the reference is
// released first, then the solver is deleted.
AppendableLiftedMpcWindowProducer& AppendableLiftedMpcWindowProducer::operator=(
    AppendableLiftedMpcWindowProducer&& other) noexcept = default;

AppendableLiftedMpcWindowProducer::~AppendableLiftedMpcWindowProducer() {
  if (impl_ != nullptr && impl_->prepared && !impl_->finalized) {
    try {
      impl_->solve_session->Finalize();
    } catch (...) {
      // A destructor must not throw; the solver's failure to finalise has nobody to reach.
    }
  }
}

void AppendableLiftedMpcWindowProducer::PrepareSession() {
  if (impl_->prepared) {
    throw std::runtime_error("AppendableLiftedMpcWindowProducer may only be prepared once.");
  }
  impl_->solve_session->Prepare();
  impl_->cursor = 0;
  impl_->prepared = true;
}

std::optional<WindowPayload> AppendableLiftedMpcWindowProducer::ProduceNext() {
  WindowPayload window;
  if (!ProduceNextInto(window)) return std::nullopt;
  return window;
}

bool AppendableLiftedMpcWindowProducer::ProduceNextInto(WindowPayload& window) {
  if (!impl_->prepared) {
    throw std::runtime_error("PrepareSession() must run before ProduceNext().");
  }
  const std::optional<std::size_t> apply_count = impl_->NextApplyCount();
  if (!apply_count.has_value()) {
    return false;
  }
  impl_->SolveWindowAtCursor(*apply_count, window);
  // Only a window that made it this far moves the cursor; after any failure the next call asks
  // for the same window again. The samples before the cursor have been read for good.
  impl_->cursor += *apply_count;
  impl_->reference_buffer->KeepFrom(impl_->cursor);
  return true;
}

bool AppendableLiftedMpcWindowProducer::IsExhausted() const { return impl_->IsExhausted(); }

std::optional<WindowPayload> AppendableLiftedMpcWindowProducer::Finalize() {
  if (!impl_->finalized) {
    impl_->solve_session->Finalize();
    impl_->finalized = true;
  }
  return std::nullopt;
}

bool AppendableLiftedMpcWindowProducer::CanResume() const { return impl_->resumable != nullptr; }

std::size_t AppendableLiftedMpcWindowProducer::FirstGlobalIndex() const {
  return impl_->global_start_index;
}

// The cursor moves only once the solver has taken the resume point, so a failure leaves the
// producer where it was.
void AppendableLiftedMpcWindowProducer::Resume(
    std::size_t start_index, const std::optional<CommandSample>& previous_command) {
  if (!impl_->prepared) {
    throw std::runtime_error("PrepareSession() must run before Resume().");
  }
  if (impl_->resumable == nullptr) {
    throw std::runtime_error("The lifted MPC solve session cannot resume.");
  }
  if (start_index < impl_->global_start_index ||
      start_index - impl_->global_start_index > impl_->reference_buffer->available_samples()) {
    throw std::invalid_argument("start_index must lie within the stored reference.");
  }
  const std::size_t start = start_index - impl_->global_start_index;
  impl_->resumable->ResumeFrom(impl_->ResumePointAt(start, previous_command));
  impl_->cursor = start;
  impl_->reference_buffer->KeepFrom(start);
}

}  // namespace corvane::control::window
