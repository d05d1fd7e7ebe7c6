// QualificationReport, ProductionTotals and the two buffers.
//
// Every call that waits (Pop, Join, Close, Prefill) releases the GIL and waits in slices, so
// that Ctrl-C interrupts it (waits.hpp). Deleting a buffer stops and joins its worker, also with
// the GIL released: a worker inside a Python solver needs the GIL to finish its call. A buffer
// dropped on a worker thread, which the garbage collector may do while a Python producer runs
// there, is deleted on a thread of its own, since no worker can join itself. The garbage
// collector sees a buffer's hold on its producer, so that a producer that refers to its own
// buffer is collected. Once Python has begun to shut down, a worker can no longer take the GIL,
// so an exit handler ends every buffer still alive before that.
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include <window/async_buffer.hpp>

#include "arrays.hpp"
#include "collectable.hpp"
#include "errors.hpp"
#include "producers.hpp"
#include "record_class.hpp"
#include "reference_buffer.hpp"
#include "waits.hpp"

namespace corvane::python {

namespace {

// What the module knows of a buffer that Python holds.
struct Tracked {
  py::handle producer;  // the producer's Python object, which the buffer keeps alive
  // The reference that the buffer's lifted-MPC producer waits on for its first sample, or null.
  std::shared_ptr<cw::AppendableReferenceBuffer> first_sample_source;
  // Set before every Stop() from Python, so that a sliced Pop tells a stop from a slice's end.
  std::atomic<bool> stop_requested{false};
};

// The buffers that Python holds now; changed only with the GIL held. Elements never move, so a
// call may keep a reference to its buffer's element while it waits without the GIL.
std::unordered_map<const cw::AsyncWindowBuffer*, Tracked>& LiveBuffers() {
  static std::unordered_map<const cw::AsyncWindowBuffer*, Tracked> live;
  return live;
}

Tracked& TrackedOf(const cw::AsyncWindowBuffer& buffer) { return LiveBuffers().at(&buffer); }

// Buffer deletions handed to threads of their own, counted so that exit can wait for them.
class HandedOffDeletions {
 public:
  template <class Buffer>
  void Delete(Buffer* buffer) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      ++pending_;
    }
    try {
      std::thread([this, buffer] {
        delete buffer;
        {
          const std::lock_guard<std::mutex> lock(mutex_);
          --pending_;
        }
        done_.notify_all();
      }).detach();
    } catch (const std::system_error&) {
      // Without a thread to delete it on, the buffer is left alive: its worker cannot join
      // itself, and ending the process is worse than the leak.
      const std::lock_guard<std::mutex> lock(mutex_);
      --pending_;
    }
  }

  void AwaitAll() {
    std::unique_lock<std::mutex> lock(mutex_);
    done_.wait(lock, [this] { return pending_ == 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable done_;
  std::size_t pending_ = 0;
};

// Never destroyed: a detached deleting thread may still use it as the process ends.
HandedOffDeletions& Deletions() {
  static auto* const deletions = new HandedOffDeletions;
  return *deletions;
}

// Deletes a buffer with the GIL released; Python calls it from the buffer's deallocation, with
// the GIL held.
struct DeleteBuffer {
  template <class Buffer>
  void operator()(Buffer* buffer) const {
    LiveBuffers().erase(buffer);
    if (IsWorkerThread()) return Deletions().Delete(buffer);
    WithoutGil([buffer] { delete buffer; });
  }
};

template <class Buffer>
using BufferHolder = std::unique_ptr<Buffer, DeleteBuffer>;

// Either buffer from its Python arguments: with a statistics retention when one is given, with
// the whole history otherwise.
template <class Buffer, class... Args>
BufferHolder<Buffer> MakeBuffer(const py::object& producer, Args... args,
                                std::optional<std::size_t> statistics_retention_windows) {
  AdoptedProducer adopted = AdoptProducer(producer);
  BufferHolder<Buffer> buffer(statistics_retention_windows
                                  ? new Buffer(std::move(adopted.producer), std::move(args)...,
                                               *statistics_retention_windows)
                                  : new Buffer(std::move(adopted.producer), std::move(args)...));
  Tracked& tracked = LiveBuffers()[buffer.get()];
  tracked.producer = adopted.object;
  tracked.first_sample_source = std::move(adopted.first_sample_source);
  return buffer;
}

// The producer object that a buffer keeps alive.
template <class Buffer>
py::handle HeldProducer(const Buffer& buffer) {
  const auto tracked = LiveBuffers().find(&buffer);
  return tracked == LiveBuffers().end() ? py::handle() : tracked->second.producer;
}

template <class Buffer>
py::custom_type_setup CollectableBuffer() {
  return Collectable<Buffer, &HeldProducer<Buffer>>(&DestroyValue);
}

void RequestStop(cw::AsyncWindowBuffer& buffer) {
  TrackedOf(buffer).stop_requested = true;
  buffer.Stop();
}

bool Join(cw::AsyncWindowBuffer& buffer, const Timeout& timeout) {
  const Deadline deadline(timeout);
  return UntilDone([&]() -> std::optional<bool> {
    if (buffer.Join(deadline.NextSlice())) return true;
    if (deadline.Passed()) return false;
    return std::nullopt;
  });
}

std::optional<cw::WindowPayload> Pop(cw::AsyncWindowBuffer& buffer, const Timeout& timeout) {
  const std::atomic<bool>& stop_requested = TrackedOf(buffer).stop_requested;
  const Deadline deadline(timeout);
  return UntilDone([&]() -> std::optional<std::optional<cw::WindowPayload>> {
    std::optional<cw::WindowPayload> window = buffer.Pop(deadline.NextSlice());
    if (window || deadline.Passed() || stop_requested || buffer.IsComplete()) {
      return std::optional<std::optional<cw::WindowPayload>>(std::in_place, std::move(window));
    }
    return std::nullopt;
  });
}

bool PopInto(cw::AsyncWindowBuffer& buffer, cw::WindowPayload& window, const Timeout& timeout) {
  const std::atomic<bool>& stop_requested = TrackedOf(buffer).stop_requested;
  const Deadline deadline(timeout);
  return WithLentWindow(window, [&](cw::WindowPayload& lent) {
    return UntilDone([&]() -> std::optional<bool> {
      if (buffer.PopInto(lent, deadline.NextSlice())) return true;
      if (deadline.Passed() || stop_requested || buffer.IsComplete()) return false;
      return std::nullopt;
    });
  });
}

// One window at a time, handling signals in between; a lifted-MPC producer's wait for its
// first sample is made here, in slices, before the library would make it without a limit.
std::size_t Prefill(cw::AsyncWindowBuffer& buffer, std::size_t max_windows) {
  const std::shared_ptr<cw::AppendableReferenceBuffer> source =
      TrackedOf(buffer).first_sample_source;
  WithoutGil([&] { return buffer.Prefill(0); });  // prepares the session
  std::size_t queued = 0;
  while (queued < max_windows) {
    if (source) WaitForSamples(*source, 1, Timeout{});
    if (WithoutGil([&] { return buffer.Prefill(1); }) == 0) break;
    ++queued;
    HandlePendingSignals();
  }
  return queued;
}

// The exit handler: finishes every reference buffer, which releases a lifted-MPC producer
// waiting for its first sample, closes every live buffer, holding its Python object meanwhile,
// and waits for the deletions handed to other threads.
void EndAllAtExit() {
  std::vector<py::object> held;
  std::vector<cw::AsyncWindowBuffer*> buffers;
  for (auto& [buffer, tracked] : LiveBuffers()) {
    auto* const live = const_cast<cw::AsyncWindowBuffer*>(buffer);
    held.push_back(py::cast(live, py::return_value_policy::reference));
    buffers.push_back(live);
    tracked.stop_requested = true;
  }
  const std::vector<std::shared_ptr<cw::AppendableReferenceBuffer>> references =
      LiveReferenceBuffers();
  WithoutGil([&] {
    for (const auto& reference : references) reference->Finish();
    for (cw::AsyncWindowBuffer* buffer : buffers) buffer->Close();
    Deletions().AwaitAll();
  });
}

void BindQualificationReport(py::module_& module) {
  using Report = cw::QualificationReport;
  RecordClass<Report>(module, "QualificationReport",
                      "Whether window production keeps up with real time, judged on the "
                      "recorded history.")
      .Field("qualified", &Report::qualified,
             "No window over the limit, all durations positive, no underrun.")
      .Field("compute_fraction_limit", &Report::compute_fraction_limit,
             "The limit asked for (compute seconds per window second).")
      .Field("prefill_windows", &Report::prefill_windows,
             "The buffer's prefill_windows constructor argument.")
      .Field("max_compute_time_s", &Report::max_compute_time_s,
             "[s] Largest compute time charged to a window.")
      .Field("p99_compute_time_s", &Report::p99_compute_time_s,
             "[s] 0.99 quantile of the compute times, interpolated.")
      .Field("min_margin_s", &Report::min_margin_s,
             "[s] Smallest running margin of playback over production.")
      .Field("underrun_windows", &Report::underrun_windows,
             "Windows whose running margin is negative.")
      .Field("total_windows", &Report::total_windows, "Windows produced through ProduceNext.")
      .Field("total_compute_time_s", &Report::total_compute_time_s,
             "[s] Sum of the compute times.");
}

void BindProductionTotals(py::module_& module) {
  using Totals = cw::ProductionTotals;
  RecordClass<Totals>(module, "ProductionTotals",
                      "Running totals over every window produced through ProduceNext in the "
                      "buffer's life, kept exact whatever the statistics retention.")
      .Field("total_windows", &Totals::total_windows, "Windows produced through ProduceNext.")
      .Field("total_compute_time_s", &Totals::total_compute_time_s,
             "[s] Sum of their compute times, added in production order.")
      .Field("max_compute_time_s", &Totals::max_compute_time_s,
             "[s] Largest compute time charged to one; 0 before the first.");
}

void BindAsyncWindowBuffer(py::module_& module) {
  using Buffer = cw::AsyncWindowBuffer;
  py::class_<Buffer, BufferHolder<Buffer>>(
      module, "AsyncWindowBuffer",
      "Runs one producer on a worker thread and hands its windows to consumers. The buffer keeps "
      "the producer object alive and is its only user from then on. Lifecycle: construct, "
      "optionally Prefill(), Start(), Pop() windows until IsComplete(). Pop, Join, Close, "
      "Prefill and deletion release the GIL while they wait; Ctrl-C interrupts the waits with "
      "KeyboardInterrupt and leaves the buffer usable.",
      CollectableBuffer<Buffer>())
      .def(py::init(&MakeBuffer<Buffer, std::size_t, std::optional<std::size_t>>),
           py::arg("producer"), py::arg("prefill_windows") = 0,
           py::arg("max_buffered_windows") = py::none(),
           py::arg("statistics_retention_windows") = py::none(),
           "prefill_windows: windows the worker queues back to back before its steady loop. "
           "max_buffered_windows: queue capacity; None means unbounded. "
           "statistics_retention_windows: keeps the statistics of only that many recent windows, "
           "so that their memory stays bounded on a long stream (16 bytes a window plus at most "
           "128 KB); Qualify() then judges those windows, while Totals() stays exact; None keeps "
           "every window's. Raises ValueError for a None producer, a capacity of 0, a capacity "
           "below prefill_windows, or a retention of 0 (in that order), and RuntimeError for a "
           "producer that another buffer or producer owns.")
      .def("Start", py::overload_cast<>(&Buffer::Start),
           "Starts the worker thread. Raises RuntimeError when called a second time.")
      .def("Stop", &RequestStop,
           "Asks the worker to end at its next check and wakes every waiter; returns at once. "
           "Queued windows stay queued.")
      .def(
          "Close",
          [](Buffer& buffer) {
            RequestStop(buffer);
            Join(buffer, Timeout{});
          },
          "Stop(), then Join() without a time-out.")
      .def("Join", &Join, py::arg("timeout") = py::none(),
           "Waits for the worker to end: without limit when `timeout` is None, otherwise for "
           "that many seconds (or a timedelta). Returns False only when the time ran out. "
           "Requests no stop.")
      .def("Pop", &Pop, py::arg("timeout") = py::none(),
           "The oldest queued window. Waits (without limit when `timeout` is None) until a "
           "window is queued, the worker has finished or a stop was requested. None at the "
           "deadline or at the end; at the end, raises the worker's failure, if any, on every "
           "call.")
      .def("PopNowait", &Buffer::PopNowait, "Pop() with a zero time-out: never waits.")
      .def("PopInto", &PopInto, py::arg("window"), py::arg("timeout") = py::none(),
           "The allocation-free pop: waits as Pop() does, then swaps the oldest window into "
           "`window` (a WindowPayload) and returns True; False at the deadline or at the end (at "
           "an end with a failure, raises it as Pop() does). What `window` held before goes back "
           "to the buffer, whose worker reuses its storage. Wakes a worker waiting for room only "
           "once the queue has fallen to half its capacity.")
      .def("HasBufferedData", &Buffer::HasBufferedData, "Whether any window is queued.")
      .def("IsComplete", &Buffer::IsComplete,
           "Whether the worker has finished and the queue is empty.")
      .def("LastError", &Buffer::LastError,
           "The text of the worker's failure, once there is one; otherwise None.")
      .def("Prefill", &Prefill, py::arg("max_windows"),
           "Before Start(): produces up to max_windows windows on the calling thread and queues "
           "them, ignoring the capacity. Returns how many were queued (fewer when the producer "
           "runs out or has nothing ready). Raises RuntimeError after Start(); producer and "
           "validation errors pass through.")
      .def("Qualify", &Buffer::Qualify, py::arg("compute_fraction_limit"),
           "A QualificationReport judging the history of produced windows against "
           "compute_fraction_limit (compute seconds per second of window duration). Raises "
           "ValueError unless the limit is finite and positive.")
      .def("Totals", &Buffer::Totals,
           "The ProductionTotals of the buffer's whole life, whatever the statistics retention; "
           "a snapshot taken in constant time.");
}

void BindAppendableWindowBuffer(py::module_& module) {
  using Buffer = cw::AppendableWindowBuffer;
  py::class_<Buffer, cw::AsyncWindowBuffer, BufferHolder<Buffer>>(
      module, "AppendableWindowBuffer",
      "The buffer for streaming: an AsyncWindowBuffer that also holds a share of the reference "
      "buffer its producer reads, so that one object appends reference, ends the stream and "
      "pops windows. Stop() finishes the reference first, releasing a producer that waits for "
      "samples.",
      CollectableBuffer<Buffer>())
      .def(py::init(&MakeBuffer<Buffer, std::shared_ptr<cw::AppendableReferenceBuffer>, std::size_t,
                                std::optional<std::size_t>>),
           py::arg("producer"), py::arg("reference_buffer"), py::arg("prefill_windows") = 0,
           py::arg("max_buffered_windows") = py::none(),
           py::arg("statistics_retention_windows") = py::none(),
           "Raises as AsyncWindowBuffer does, then ValueError for a None reference_buffer.")
      .def("AppendReference", &AppendCommand<Buffer>, py::arg("command"),
           "AppendableReferenceBuffer.AppendReference on the buffer's reference; its errors "
           "pass through.")
      .def("Finish", &Buffer::Finish,
           "Ends the reference stream; the worker serves the rest and then finishes.")
      .def("ReferencePositions", &Buffer::ReferencePositions,
           "A copy of every stored reference sample; over a reference buffer with a "
           "retention, of the retained ones, oldest first.")
      .def("AvailableReferenceSamples", &Buffer::AvailableReferenceSamples,
           "Number of stored reference samples, held samples included.")
      .def("AppendableReferenceSamples", &Buffer::AppendableReferenceSamples,
           "How many samples an append may add now without dropping one that the producer has "
           "yet to read; None when nothing limits it.");
}

}  // namespace

void BindBuffers(py::module_& module) {
  BindQualificationReport(module);
  BindProductionTotals(module);
  BindAsyncWindowBuffer(module);
  BindAppendableWindowBuffer(module);
  py::module_::import("atexit").attr("register")(py::cpp_function(&EndAllAtExit));
}

}  // namespace corvane::python
