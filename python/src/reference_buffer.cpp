// AppendableReferenceBuffer, shared between Python, the lifted-MPC producer and the buffer.
#include "reference_buffer.hpp"

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>

#include "waits.hpp"

namespace corvane::python {

namespace {

using Buffer = cw::AppendableReferenceBuffer;

// The reference buffers made from Python; changed only with the GIL held.
std::vector<std::weak_ptr<Buffer>>& MadeBuffers() {
  static std::vector<std::weak_ptr<Buffer>> made;
  return made;
}

std::shared_ptr<Buffer> MakeBuffer(std::optional<std::size_t> joint_count,
                                   std::optional<std::size_t> retention_samples) {
  auto buffer = retention_samples ? std::make_shared<Buffer>(joint_count, *retention_samples)
                                  : std::make_shared<Buffer>(joint_count);
  std::vector<std::weak_ptr<Buffer>>& made = MadeBuffers();
  made.erase(std::remove_if(made.begin(), made.end(),
                            [](const std::weak_ptr<Buffer>& known) { return known.expired(); }),
             made.end());
  made.push_back(buffer);
  return buffer;
}

}  // namespace

bool WaitForSamples(Buffer& reference, std::size_t count, const Timeout& timeout) {
  const Deadline deadline(timeout);
  return UntilDone([&]() -> std::optional<bool> {
    if (reference.WaitUntilSamples(count, deadline.NextSlice())) return true;
    // Finished, or out of time: one last look, as a wait would take at its end.
    if (deadline.Passed() || reference.is_finished()) {
      return reference.WaitUntilSamples(count, std::chrono::nanoseconds::zero());
    }
    return std::nullopt;
  });
}

std::vector<std::shared_ptr<Buffer>> LiveReferenceBuffers() {
  std::vector<std::shared_ptr<Buffer>> live;
  for (const std::weak_ptr<Buffer>& made : MadeBuffers()) {
    if (std::shared_ptr<Buffer> buffer = made.lock()) live.push_back(std::move(buffer));
  }
  return live;
}

void BindReferenceBuffer(py::module_& module) {
  py::class_<Buffer, std::shared_ptr<Buffer>>(
      module, "AppendableReferenceBuffer",
      "The thread-safe, growing store of reference samples for streaming. The caller appends "
      "blocks of samples (one row per sample, one column per joint) while the system runs and "
      "finally calls Finish(); sample i is row i of the store, and a stored row never changes, "
      "unless a retention drops the oldest samples. "
      "Shared by the caller, the lifted-MPC producer and the AppendableWindowBuffer; every "
      "method may be called from any thread.")
      .def(py::init(&MakeBuffer), py::arg("joint_count") = py::none(),
           py::arg("retention_samples") = py::none(),
           "An empty, open buffer. joint_count, when given, fixes the column count now; "
           "otherwise the first non-empty append fixes it. retention_samples, when given, keeps "
           "only that many recent samples, so that memory stays bounded; sample indices stay "
           "global and available_samples() counts every sample ever stored. Raises ValueError "
           "when joint_count is 0, then when retention_samples is 0.")
      .def("AppendReference", &AppendCommand<Buffer>, py::arg("command"),
           "Appends the rows of `command` (rows, joints), or one sample given as a 1-D array, and "
           "wakes waiters; returns the AppendedRange. An empty block changes nothing. Raises "
           "ValueError for a block without columns, with a non-finite value or with the wrong "
           "column count, and RuntimeError after Finish(), or when the retention would drop a "
           "sample not read yet (see KeepFrom), storing nothing.")
      .def("Finish", &Buffer::Finish,
           "Ends the stream: later non-empty appends fail and waits no longer block. Repeatable.")
      .def("ExtendHoldTo", &Buffer::ExtendHoldTo, py::arg("target_samples"),
           "Repeats the last sample until target_samples are stored; returns how many were "
           "added. Allowed after Finish(). Raises ValueError before the first sample, and "
           "RuntimeError when the retention would drop a sample not read yet.")
      .def("WindowWithTerminalPadding", &Buffer::WindowWithTerminalPadding, py::arg("start"),
           py::arg("stop"),
           "A ReferenceWindow copying samples [start, stop); rows past the stored samples repeat "
           "the last one. Raises ValueError when start >= stop, or when start is not a stored "
           "sample or has been dropped by a retention.")
      .def(
          "CopyWindowWithTerminalPadding",
          [](const Buffer& buffer, std::size_t start, std::size_t stop,
             cw::ReferenceWindow& window) {
            window.terminal_padding_samples =
                buffer.CopyWindowWithTerminalPadding(start, stop, window.positions);
            return window.terminal_padding_samples;
          },
          py::arg("start"), py::arg("stop"), py::arg("window"),
          "WindowWithTerminalPadding(start, stop) written into `window` (a ReferenceWindow), "
          "reusing its storage when it has that shape already; returns the padding rows. Raises "
          "as WindowWithTerminalPadding does, leaving `window` unchanged.")
      .def("WaitUntilSamples", &WaitForSamples, py::arg("count"), py::arg("timeout") = py::none(),
           "Waits, with the GIL released, until at least `count` samples are stored, the stream "
           "is finished, or the time-out (seconds or timedelta; None: no limit) passes; returns "
           "whether `count` samples are stored. Ctrl-C raises KeyboardInterrupt.")
      .def("KeepFrom", &Buffer::KeepFrom, py::arg("first_unread"),
           "Marks the samples from first_unread on as not read yet: with a retention, an append "
           "or a hold that would drop one of them raises RuntimeError naming it and stores "
           "nothing. The lifted-MPC producer keeps the mark at its cursor. Without a retention "
           "the mark changes nothing.")
      .def("appendable_samples", &Buffer::appendable_samples,
           "How many samples an append or a hold may add now without dropping one that has not "
           "been read yet; None when nothing limits it (no retention, or no mark).")
      .def("retention_samples", &Buffer::retention_samples,
           "The retention given at construction; None when every sample is kept.")
      .def("available_samples", &Buffer::available_samples,
           "Number of samples stored, held samples included.")
      .def("is_finished", &Buffer::is_finished, "Whether Finish() has been called.")
      .def("PositionsCopy", &Buffer::PositionsCopy,
           "A copy of every stored sample; with a retention, of the retained ones, oldest first.");
}

}  // namespace corvane::python
