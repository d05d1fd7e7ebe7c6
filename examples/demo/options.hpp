// Command line of corvane-window-demo.
#pragma once

#include <stdexcept>
#include <string>

#include <Eigen/Core>

namespace corvane::demo {

// Which engine makes the windows.
enum class Mode {
  kPlant,   // moves streamed through the lifted-MPC path into a simulated flexible arm
  kMpc,     // lifted-MPC solver over a reference streamed by a planner thread
  kShaper,  // input shaper over the whole reference
  kReplay,  // the reference itself, cut into precomputed windows
  kPoses,   // the simulated arm on a compliant shoulder, moved at poses over its workspace
};

struct DemoOptions {
  Mode mode = Mode::kPlant;
  Eigen::Index joints = 6;
  double rate_hz = 1000.0;               // [Hz] sample rate
  Eigen::Index apply_samples = 10;       // rows per window
  Eigen::Index lookahead_samples = 100;  // reference rows per solve (MPC mode)
  double duration_s = 3.0;               // [s] length of the planned motion
  bool fast = false;                     // play windows as fast as they come, not in real time
  bool shape = false;                    // MPC mode: shape the streamed reference online
  std::string csv_path;                  // empty: no CSV file
  std::string plot_path;                 // empty: no plot
  std::string record_path;               // plant mode: the record of the tuned run; empty: none
  std::string replay_path;               // plant mode: a record to play into the arm instead
  std::string timing_path;               // empty: no timing log
  bool help = false;

  double sample_time_s() const { return 1.0 / rate_hz; }
};

// A bad command line; the message is one line.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Throws UsageError for an unknown option, a missing value or a value out of range.
DemoOptions ParseOptions(int argc, const char* const* argv);

const char* ModeName(Mode mode);

// The text printed by --help.
extern const char kUsage[];

}  // namespace corvane::demo
