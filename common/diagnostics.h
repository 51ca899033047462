#pragma once

#include <cstdint>
#include <string_view>

// Diagnostic lines on standard output: one line each, flushed at once, so that a
// line is never lost when the process is killed right after printing it. Every line of the
// program goes through here, so their order is the order in which they were given; the
// lines may come from several threads.
namespace plinkora {

/// Prints `text` and a line feed on standard output and flushes.
void printLine(std::string_view text);

/// Prints `prefix`, then `value` in signed decimal, then a line feed. Does not allocate.
void printLine(std::string_view prefix, std::int64_t value);

/// A line that describes the work its scope is about to do, written once that work is done:
/// when the object goes out of scope, or before any other line is printed in the meantime, so
/// the lines keep their order. The work (a key's MIDI message, say) does not wait for standard
/// output, however slow its reader. Formats like printf into a fixed buffer (lines are cut at
/// 255 bytes) and does not allocate. A line still held when the process ends (exit, or
/// fatal()) is written first.
class LineAfterwards
{
public:
    [[gnu::format(printf, 2, 3)]] explicit LineAfterwards(const char* format, ...);
    ~LineAfterwards();
    LineAfterwards(const LineAfterwards&) = delete;
    LineAfterwards& operator=(const LineAfterwards&) = delete;
};

/// Stops the process: prints `text` as one line on standard error, then std::abort().
[[noreturn]] void fatal(std::string_view text);

} // namespace plinkora
