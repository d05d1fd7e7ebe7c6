// The control loop's playing half, shared by the lockstep run and the replay of a record: it pops
// each window of a started buffer and plays its samples into the arm.
#pragma once

#include <functional>
#include <vector>

#include <Eigen/Core>
#include <corvane_shaper_io/window_record.hpp>
#include <window/async_buffer.hpp>

#include "plant/flexible_arm.hpp"
#include "plant/lockstep.hpp"

namespace corvane::plant {

// Pops windows until the buffer completes and plays every row into the arm (zero velocity when
// a window has none). Before each pop it calls before_pop, if given, with the windows popped so
// far. Fills run's command, joints, deflection and popped windows. Throws std::runtime_error
// when no window comes for 5 s, and passes on the buffer's failures.
void PlayWindows(control::window::AsyncWindowBuffer& buffer, FlexibleArm& arm, LockstepRun& run,
                 const std::function<void(Eigen::Index)>& before_pop);

// Puts the arm at rest on rest_pose [rad] and plays the recorded windows into it through a
// buffer over their replay producer: from the same rest, the arm moves exactly as in the
// recorded run. Throws what PlayWindows and the replay producer throw.
LockstepRun PlayRecord(FlexibleArm& arm, const std::vector<control::io::RecordedWindow>& record,
                       const Eigen::RowVectorXd& rest_pose);

}  // namespace corvane::plant
