// The layout of a record file, shared by its writer and its reader (docs/records.md describes
// it): a sequence of MessagePack maps, a header, one entry per window and a closing entry.
#pragma once

#include <cstdint>

namespace corvane::control::io::format {

// Sample arrays are stored as their bytes, IEEE-754 doubles in little-endian order.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "Record files store doubles in the host's little-endian order.");

// The header: {"format": kFormatName, "version": kVersion}.
inline constexpr char kFormatKey[] = "format";
inline constexpr char kFormatName[] = "corvane window record";
inline constexpr char kVersionKey[] = "version";
inline constexpr std::uint64_t kVersion = 1;

// A window entry: a map of these keys. Matrices are [rows, columns, bin of rows * columns
// doubles, row by row]; time_s is a bin of doubles; absent optionals are nil.
inline constexpr char kPositionsKey[] = "positions";
inline constexpr char kVelocitiesKey[] = "velocities";
inline constexpr char kAccelerationsKey[] = "accelerations";
inline constexpr char kTimeKey[] = "time_s";
inline constexpr char kStartIndexKey[] = "start_index";
inline constexpr char kStopIndexKey[] = "stop_index";
inline constexpr char kComputeTimeKey[] = "compute_time_s";
inline constexpr char kMetadataKey[] = "metadata";
inline constexpr char kPoppedKey[] = "popped_s";
inline constexpr std::uint32_t kWindowKeys = 9;

// The closing entry: {"windows": the number of window entries before it}.
inline constexpr char kWindowsKey[] = "windows";

}  // namespace corvane::control::io::format
