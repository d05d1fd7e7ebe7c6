// Decodes a fuzzer's bytes into what its target feeds the library: operation codes, small counts
// and shapes, doubles that favour the special values, indices near the top of std::size_t, and
// short time-outs. Once the bytes run out every read returns zero, so any input decodes to one
// finite run.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "window/records.hpp"

namespace corvane::fuzzing {

using control::window::SampleMatrix;

// Reports a broken property and stops the run, so that libFuzzer keeps the input as a crash.
[[noreturn]] inline void Fail(const char* what) {
  std::fprintf(stderr, "property violated: %s\n", what);
  std::abort();
}

class FuzzInput {
 public:
  FuzzInput(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  bool Empty() const { return next_ >= size_; }
  std::uint8_t Byte() { return next_ < size_ ? data_[next_++] : 0; }
  // A value in [0, bound), for a bound of 1 to 256.
  std::size_t Below(std::size_t bound) { return Byte() % bound; }
  bool OneIn(std::size_t n) { return Below(n) == 0; }

  // A shape dimension of 0 to 4.
  Eigen::Index Dimension() { return static_cast<Eigen::Index>(Below(5)); }

  // Mostly multiples of 1/16 in [-0.5, 1.5); one in eight a special value: signed zeros,
  // subnormals, the extremes of double, the neighbours of 1.0, NaN and both infinities.
  double Value() {
    static constexpr double kSpecial[] = {-0.0,
                                          std::numeric_limits<double>::denorm_min(),
                                          -std::numeric_limits<double>::denorm_min(),
                                          std::numeric_limits<double>::min(),
                                          std::numeric_limits<double>::max(),
                                          std::numeric_limits<double>::lowest(),
                                          1.0 + std::numeric_limits<double>::epsilon(),
                                          1.0 - std::numeric_limits<double>::epsilon() / 2,
                                          std::numeric_limits<double>::quiet_NaN(),
                                          -std::numeric_limits<double>::quiet_NaN(),
                                          std::numeric_limits<double>::infinity(),
                                          -std::numeric_limits<double>::infinity()};
    const std::uint8_t code = Byte();
    if (code < 224) return static_cast<double>(code % 32) / 16.0 - 0.5;
    return kSpecial[(code - 224) % std::size(kSpecial)];
  }

  // Mostly 0 to 63; otherwise within a few of the largest std::size_t, or around 2^63, where a
  // count stops fitting a signed 64-bit index.
  std::size_t Index() {
    constexpr std::size_t kTop = std::numeric_limits<std::size_t>::max();
    constexpr auto kSignedEdge = static_cast<std::size_t>(std::numeric_limits<std::int64_t>::max());
    const std::uint8_t code = Byte();
    if (code < 192) return code % 64;
    if (code < 224) return kTop - code % 4;
    return kSignedEdge - 1 + code % 4;
  }

  template <typename Matrix>
  Matrix Values(Eigen::Index rows, Eigen::Index cols) {
    Matrix values(rows, cols);
    for (Eigen::Index i = 0; i < values.size(); ++i) values.data()[i] = Value();
    return values;
  }

  // 0 to about 200 microseconds, zero one time in four.
  std::chrono::nanoseconds ShortTimeout() {
    return std::chrono::microseconds(OneIn(4) ? 0 : Byte() % 200);
  }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t next_ = 0;
};

// What one input does; each fuzzer's one source file defines it.
void RunInput(FuzzInput& in);

}  // namespace corvane::fuzzing

// libFuzzer's entry point, defined here once for the one source file of each fuzzer.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  corvane::fuzzing::FuzzInput in(data, size);
  corvane::fuzzing::RunInput(in);
  return 0;
}
