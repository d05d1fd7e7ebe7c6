// TimingLog, what it reads and counts, and the buffers' AttachTimingLog. A read comes to Python
// as one numpy array per field of the entries, ready for plotting or numpy.savetxt.
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>

#include <pybind11/numpy.h>

#include <window/async_buffer.hpp>
#include <window/timing_log.hpp>

#include "module.hpp"
#include "record_class.hpp"

namespace corvane::python {

namespace {

static_assert(std::is_same_v<std::uint64_t, std::size_t>, "counts and sequences share a dtype");

// One field of every entry of `read`, as a new 1-D array.
template <class Value>
py::array_t<Value> Column(const cw::TimingRead& read, Value cw::WindowTiming::*field) {
  py::array_t<Value> column(static_cast<py::ssize_t>(read.entries.size()));
  auto values = column.template mutable_unchecked<1>();
  for (std::size_t i = 0; i < read.entries.size(); ++i) {
    values(static_cast<py::ssize_t>(i)) = read.entries[i].*field;
  }
  return column;
}

template <class Value>
void AddColumn(py::class_<cw::TimingRead>& read_class, const char* name,
               Value cw::WindowTiming::*field, const char* doc) {
  read_class.def_property_readonly(
      name, [field](const cw::TimingRead& read) { return Column(read, field); }, doc);
}

void BindTimingRead(py::module_& module) {
  using Read = cw::TimingRead;
  py::class_<Read> read(module, "TimingRead",
                        "What one TimingLog.Read() found: the entries of the windows popped "
                        "since the sequence asked for, oldest first, one numpy array per field "
                        "(uint64 counts, float64 seconds since the log's origin); each access "
                        "makes a new array.");
  AddColumn(read, "sequence", &cw::WindowTiming::sequence,
            "The windows' places in the order of queueing, from 0; windows that a replacement "
            "discarded from the queue leave no place.");
  AddColumn(read, "start_index", &cw::WindowTiming::start_index,
            "First global sample index of each window.");
  AddColumn(read, "stop_index", &cw::WindowTiming::stop_index,
            "One past the last global sample index of each window.");
  AddColumn(read, "production_start_s", &cw::WindowTiming::production_start_s,
            "[s] When the producer was asked for each window.");
  AddColumn(read, "compute_time_s", &cw::WindowTiming::compute_time_s,
            "[s] Compute time charged to each window.");
  AddColumn(read, "duration_s", &cw::WindowTiming::duration_s,
            "[s] How long each window lasts when played.");
  AddColumn(read, "queued_s", &cw::WindowTiming::queued_s, "[s] When each window was queued.");
  AddColumn(read, "queue_depth_windows", &cw::WindowTiming::queue_depth_windows,
            "Windows in the queue once each was queued, itself included.");
  AddColumn(read, "popped_s", &cw::WindowTiming::popped_s,
            "[s] When a pop handed each window to the loop.");
  AddColumn(read, "margin_s", &cw::WindowTiming::margin_s,
            "[s] How long before it was due each window was queued (due: when the window "
            "before it has played); negative when late.");
  read.def_readonly("overwritten_windows", &Read::overwritten_windows,
                    "Popped windows from the sequence asked on whose entry was overwritten.")
      .def_readonly("next_sequence", &Read::next_sequence,
                    "Where the next read starts: one past the last popped window.")
      .def(
          "__len__", [](const Read& r) { return r.entries.size(); }, "The number of entries.")
      .def(
          "__repr__",
          [](const Read& r) {
            return "TimingRead(windows=" + std::to_string(r.entries.size()) +
                   ", overwritten_windows=" + std::to_string(r.overwritten_windows) +
                   ", next_sequence=" + std::to_string(r.next_sequence) + ")";
          },
          "TimingRead(windows=..., overwritten_windows=..., next_sequence=...).");
}

void BindTimingCounters(py::module_& module) {
  using Counters = cw::TimingCounters;
  RecordClass<Counters>(module, "TimingCounters",
                        "Counters of the stream since the timing log was attached.")
      .Field("queued_windows", &Counters::queued_windows,
             "Windows queued, those a replacement discarded included.")
      .Field("popped_windows", &Counters::popped_windows, "Windows handed to the loop.")
      .Field("underrun_windows", &Counters::underrun_windows,
             "Popped windows with a negative margin.")
      .Field("deadline_misses", &Counters::deadline_misses,
             "Misses the loop reported with ReportDeadlineMiss().")
      .Field("max_compute_time_s", &Counters::max_compute_time_s,
             "[s] Longest compute time of a queued window; 0 before one.")
      .Field("min_margin_s", &Counters::min_margin_s,
             "[s] Worst margin of a popped window; 0 before one.");
}

}  // namespace

void BindTimingLog(py::module_& module) {
  BindTimingRead(module);
  BindTimingCounters(module);
  using Log = cw::TimingLog;
  py::class_<Log, std::shared_ptr<Log>>(
      module, "TimingLog",
      "A bounded log of window timings and the stream's counters. Attach it to a buffer with "
      "AttachTimingLog() before the first window is produced; the buffer then records every "
      "window it queues and pops, without ever waiting for a reader. Times are seconds since "
      "the log was made.")
      .def(py::init<std::size_t>(), py::arg("capacity_windows"),
           "Keeps the entries of the most recent capacity_windows windows (about 100 bytes "
           "each). Raises ValueError unless capacity_windows is from 1 to 16777216.")
      .def_property_readonly("capacity_windows", &Log::capacity_windows,
                             "The number of entries the ring keeps.")
      .def(
          "Origin",
          [](const Log& log) {
            return std::chrono::duration<double>(log.Origin().time_since_epoch()).count();
          },
          "The time from which the log's times count, in seconds of time.monotonic().")
      .def("Read", &Log::Read, py::arg("sequence") = 0,
           "A TimingRead of the windows popped from `sequence` on; windows not yet popped are "
           "left for a later read. Read again from its next_sequence.")
      .def("Counters", &Log::Counters, "The TimingCounters, in constant time.")
      .def("ReportDeadlineMiss", &Log::ReportDeadlineMiss,
           "Counts one deadline miss, for the loop to call when a window was not there in time.")
      .def(
          "__repr__",
          [](const Log& log) {
            return "TimingLog(capacity_windows=" + std::to_string(log.capacity_windows()) + ")";
          },
          "TimingLog(capacity_windows=...).");

  auto buffer =
      py::reinterpret_borrow<py::class_<cw::AsyncWindowBuffer>>(module.attr("AsyncWindowBuffer"));
  buffer.def("AttachTimingLog", &cw::AsyncWindowBuffer::AttachTimingLog, py::arg("log"),
             "Records the timing of every window queued from now on into `log`. Raises "
             "ValueError for None or a log attached to a buffer already, and RuntimeError after "
             "Start(), once a window was produced, or when the buffer has a log already.");
}

}  // namespace corvane::python
