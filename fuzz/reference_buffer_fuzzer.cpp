// Arbitrary calls on an AppendableReferenceBuffer, with or without a retention, each compared
// with a plain model (every value stored, row after row, the joint count, the retention and a
// finished flag): the same result or the same exception with the same message, and the same
// retained samples after every call.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz_input.hpp"
#include "window/reference_buffer.hpp"

namespace corvane::fuzzing {
namespace {

using control::window::AppendableReferenceBuffer;
using control::window::AppendedRange;
using control::window::ReferenceWindow;

// Results and failures as text, so that the buffer's and the model's compare in one step.
std::string Text(std::size_t value) { return std::to_string(value); }
std::string Text(const AppendedRange& range) {
  return Text(range.start_index) + "-" + Text(range.stop_index);
}
std::string Text(const SampleMatrix& values) {  // exact, and keeps the sign of zero
  std::ostringstream text;
  text << values.rows() << "x" << values.cols() << std::hexfloat;
  for (Eigen::Index i = 0; i < values.size(); ++i) text << ' ' << values.data()[i];
  return text.str();
}
std::string Text(const ReferenceWindow& window) {
  return Text(window.positions) + " padded " + Text(window.terminal_padding_samples);
}
std::string Invalid(const std::string& message) { return "invalid: " + message; }
std::string Refused(const char* message) { return std::string("refused: ") + message; }
constexpr char kTooLarge[] = "too large to allocate";

template <typename Call>
std::string Outcome(Call call) {
  try {
    return Text(call());
  } catch (const std::invalid_argument& error) {
    return Invalid(error.what());
  } catch (const std::runtime_error& error) {
    return Refused(error.what());
  } catch (const std::bad_alloc&) {
    return kTooLarge;
  }
}

// Anything at or beyond this many rows cannot be allocated; the inputs ask for far fewer or for
// near 2^63.
constexpr std::size_t kUnallocatable = std::size_t(1) << 40;

struct Model {
  std::optional<std::size_t> joints;
  std::optional<std::size_t> retention;
  std::vector<double> values;  // every sample stored, row after row
  bool finished = false;

  std::size_t Count() const { return joints ? values.size() / *joints : 0; }
  std::size_t First() const {  // the oldest sample retained
    return retention && Count() > *retention ? Count() - *retention : 0;
  }
  const double* Row(std::size_t row) const { return values.data() + row * *joints; }
  SampleMatrix Rows(std::size_t start, std::size_t stop) const {  // past the end: the last row
    SampleMatrix rows(Eigen::Index(stop - start), Eigen::Index(joints.value_or(0)));
    for (std::size_t r = start; r < stop; ++r) {
      std::memcpy(rows.row(Eigen::Index(r - start)).data(), Row(std::min(r, Count() - 1)),
                  *joints * sizeof(double));
    }
    return rows;
  }

  std::string Append(const SampleMatrix& block) {
    const std::size_t n = Count(), m = std::size_t(block.cols());
    if (block.rows() == 0) return Text(AppendedRange{n, n});
    if (m < 1) return Invalid("command must have at least one joint column.");
    for (Eigen::Index i = 0; i < block.size(); ++i) {
      if (!std::isfinite(block.data()[i])) return Invalid("command must be finite.");
    }
    if (finished) return Refused("Cannot append reference samples after Finish().");
    if (joints.value_or(m) != m) {
      return Invalid("command joint count does not match the appendable buffer.");
    }
    joints = m;
    values.insert(values.end(), block.data(), block.data() + block.size());
    return Text(AppendedRange{n, Count()});
  }
  std::string ExtendHoldTo(std::size_t target) {
    const std::size_t n = Count();
    if (n == 0) return Invalid("Cannot extend hold before the first reference sample.");
    if (n >= target) return Text(0);
    if (target >= kUnallocatable) return kTooLarge;
    const SampleMatrix held = Rows(n, target);
    values.insert(values.end(), held.data(), held.data() + held.size());
    return Text(target - n);
  }
  std::string Window(std::size_t start, std::size_t stop) const {
    if (start >= stop) return Invalid("Invalid reference window indices.");
    if (Count() <= start) return Invalid("Requested window starts beyond available samples.");
    if (start < First()) {
      return Invalid("Requested window starts at sample " + Text(start) +
                     ", before the first retained sample " + Text(First()) + ".");
    }
    if (stop - start >= kUnallocatable) return kTooLarge;
    const std::size_t padding = stop - std::min(stop, Count());
    return Text(ReferenceWindow{Rows(start, stop), padding});
  }
};

void Expect(const std::string& actual, const std::string& expected) {
  if (actual == expected) return;
  std::fprintf(stderr, "buffer: %s\nmodel:  %s\n", actual.c_str(), expected.c_str());
  Fail("the reference buffer departs from its model");
}

// One call, chosen by the input, on the buffer and on the model.
void Step(FuzzInput& in, AppendableReferenceBuffer& buffer, Model& model) {
  switch (in.Below(8)) {
    case 0: {
      const SampleMatrix block = in.Values<SampleMatrix>(in.Dimension(), in.Dimension());
      return Expect(Outcome([&] { return buffer.AppendReference(block); }), model.Append(block));
    }
    case 1: {
      std::size_t target = in.Index();
      // With a retention a hold writes only the retained rows, so a hold near the top of
      // std::size_t succeeds, leaving a count that no stream reaches and the model cannot hold.
      if (model.retention && target >= kUnallocatable) target %= 64;
      return Expect(Outcome([&] { return buffer.ExtendHoldTo(target); }),
                    model.ExtendHoldTo(target));
    }
    case 2: {
      const std::size_t start = in.Index(), stop = in.Index();
      return Expect(Outcome([&] { return buffer.WindowWithTerminalPadding(start, stop); }),
                    model.Window(start, stop));
    }
    case 3: {
      const std::size_t count = in.Index();
      const bool reached = buffer.WaitUntilSamples(count, std::chrono::nanoseconds::zero());
      return Expect(Text(reached), Text(model.Count() >= count));
    }
    case 4:
      buffer.Finish();
      model.finished = true;
      return;
    case 5:
      return Expect(Text(buffer.is_finished()) + Text(buffer.available_samples()),
                    Text(model.finished) + Text(model.Count()));
    case 6: {  // a move away and back leaves everything in place
      AppendableReferenceBuffer moved(std::move(buffer));
      buffer = std::move(moved);
      return;
    }
    default:
      return Expect(Text(buffer.PositionsCopy()), Text(model.Rows(model.First(), model.Count())));
  }
}

}  // namespace

// A buffer constructed with the input's joint count and, one time in two, a retention of up to 8
// samples; then the input's calls until it runs out.
void RunInput(FuzzInput& in) {
  Model model;
  if (!in.OneIn(3)) model.joints = in.Below(4);
  if (in.OneIn(2)) model.retention = in.Below(9);
  const auto construct = [&] {
    return model.retention ? AppendableReferenceBuffer(model.joints, *model.retention)
                           : AppendableReferenceBuffer(model.joints);
  };
  if (model.joints == std::size_t(0) || model.retention == std::size_t(0)) {
    return Expect(
        Outcome([&] { return construct(), std::size_t{0}; }),
        Invalid(model.joints == std::size_t(0) ? "joint_count must be positive when provided."
                                               : "retention_samples must be positive."));
  }
  AppendableReferenceBuffer buffer = construct();
  while (!in.Empty()) Step(in, buffer, model);
}

}  // namespace corvane::fuzzing
