#include "demo/options.hpp"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>

namespace corvane::demo {

const char kUsage[] =
    "Usage: corvane-window-demo [options]\n"
    "Streams point-to-point moves through the lifted-MPC path into a simulated flexible arm,\n"
    "unshaped and shaped, and prints the vibration they leave against theory (plant mode;\n"
    "it takes only --plot, --record, --replay and --timing). The other modes play a 6-joint\n"
    "arm's moves in real time.\n"
    "  --mode plant|mpc|shaper|replay|poses\n"
    "                            the simulated arm (default); lifted MPC over a streamed\n"
    "                            reference, input shaping, or replay of precomputed windows;\n"
    "                            poses: the arm on a compliant shoulder, whose mode moves with\n"
    "                            its pose, shaped by pose (takes only --plot)\n"
    "  --joints N                joints, 1 to 64 (default 6)\n"
    "  --rate HZ                 sample rate, up to 100000 (default 1000)\n"
    "  --apply N                 samples per window, up to 1000 (default 10)\n"
    "  --lookahead N             reference samples per MPC solve, --apply to 1000 (default 100)\n"
    "  --duration S              seconds of motion, up to 600 (default 3)\n"
    "  --fast                    no real-time pacing\n"
    "  --shape                   MPC mode: shape the streamed reference online (EI shaper)\n"
    "  --csv FILE                write time, reference and command per joint\n"
    "  --plot FILE.png           draw reference against command per joint; in plant mode the\n"
    "                            payload deflection and the command per joint, and in\n"
    "                            FILE_replan.png the plans changed while the arm moves\n"
    "                            (needs gnuplot)\n"
    "  --record FILE             plant mode: save the popped windows of the tuned shaped run\n"
    "                            (with --replay: of the replayed run)\n"
    "  --replay FILE             plant mode: play a saved record into the arm instead\n"
    "  --timing FILE             write the timing of every window as CSV (in plant mode, of the\n"
    "                            tuned shaped run); with --plot also FILE-timing.png beside the\n"
    "                            plot: compute time and margin per window, and the loop's pop\n"
    "                            latency with the deadline misses marked\n";

namespace {

Eigen::Index ParseCount(const std::string& option, const std::string& text, long max) {
  char* end = nullptr;
  const long value = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || value < 1 || value > max) {
    throw UsageError(option + " needs a whole number from 1 to " + std::to_string(max) + ", not '" +
                     text + "'.");
  }
  return static_cast<Eigen::Index>(value);
}

double ParsePositive(const std::string& option, const std::string& text, double max) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !(value > 0.0 && value <= max)) {
    throw UsageError(option + " needs a number above 0 and up to " +
                     std::to_string(static_cast<long>(max)) + ", not '" + text + "'.");
  }
  return value;
}

Mode ParseMode(const std::string& text) {
  for (const Mode mode : {Mode::kPlant, Mode::kMpc, Mode::kShaper, Mode::kReplay, Mode::kPoses}) {
    if (text == ModeName(mode)) return mode;
  }
  throw UsageError("--mode needs plant, mpc, shaper, replay or poses, not '" + text + "'.");
}

// Throws UsageError unless `path` can be written: a file is opened for appending (and removed
// again when it did not exist), so a run is not wasted on an output that cannot be saved.
void CheckWritable(const std::string& option, const std::string& path) {
  if (path.empty()) return;
  const bool existed = std::filesystem::exists(path);
  std::FILE* file = std::fopen(path.c_str(), "a");
  if (file == nullptr) {
    throw UsageError(option + " cannot write '" + path + "': " + std::strerror(errno) + ".");
  }
  std::fclose(file);
  if (!existed) std::filesystem::remove(path);
}

}  // namespace

const char* ModeName(Mode mode) {
  switch (mode) {
    case Mode::kPlant:
      return "plant";
    case Mode::kMpc:
      return "mpc";
    case Mode::kShaper:
      return "shaper";
    case Mode::kReplay:
      return "replay";
    case Mode::kPoses:
      return "poses";
  }
  return "?";
}

DemoOptions ParseOptions(int argc, const char* const* argv) {
  DemoOptions options;
  using Setter = std::function<void(const std::string&)>;
  const std::map<std::string, Setter> valued = {
      {"--mode", [&](const std::string& v) { options.mode = ParseMode(v); }},
      {"--joints", [&](const std::string& v) { options.joints = ParseCount("--joints", v, 64); }},
      {"--rate", [&](const std::string& v) { options.rate_hz = ParsePositive("--rate", v, 1e5); }},
      {"--apply",
       [&](const std::string& v) { options.apply_samples = ParseCount("--apply", v, 1000); }},
      {"--lookahead",
       [&](const std::string& v) {
         options.lookahead_samples = ParseCount("--lookahead", v, 1000);
       }},
      {"--duration",
       [&](const std::string& v) { options.duration_s = ParsePositive("--duration", v, 600.0); }},
      {"--csv", [&](const std::string& v) { options.csv_path = v; }},
      {"--plot", [&](const std::string& v) { options.plot_path = v; }},
      {"--record", [&](const std::string& v) { options.record_path = v; }},
      {"--replay", [&](const std::string& v) { options.replay_path = v; }},
      {"--timing", [&](const std::string& v) { options.timing_path = v; }},
  };
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    if (option == "--fast") {
      options.fast = true;
    } else if (option == "--shape") {
      options.shape = true;
    } else if (option == "--help" || option == "-h") {
      options.help = true;
    } else if (const auto setter = valued.find(option); setter != valued.end()) {
      if (i + 1 == argc) throw UsageError(option + " needs a value.");
      setter->second(argv[++i]);
    } else {
      throw UsageError("unknown option '" + option + "' (try --help).");
    }
  }
  if (options.shape && options.mode != Mode::kMpc) {
    throw UsageError("--shape needs --mode mpc.");
  }
  if ((!options.record_path.empty() || !options.replay_path.empty()) &&
      options.mode != Mode::kPlant) {
    throw UsageError("--record and --replay need the plant mode.");
  }
  if (!options.timing_path.empty() && !options.replay_path.empty()) {
    throw UsageError("--timing does not go with --replay.");
  }
  if (options.lookahead_samples < options.apply_samples) {
    throw UsageError("--lookahead must be at least --apply.");
  }
  if (std::lround(options.duration_s * options.rate_hz) < 2) {
    throw UsageError("--duration and --rate give fewer than two samples.");
  }
  CheckWritable("--csv", options.csv_path);
  CheckWritable("--plot", options.plot_path);
  CheckWritable("--record", options.record_path);
  CheckWritable("--timing", options.timing_path);
  return options;
}

}  // namespace corvane::demo
