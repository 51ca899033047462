#pragma once

#include <cstdint>
#include <string_view>

// Diagnostic lines on standard output: one line each, flushed at once, so that a
// line is never lost when the process is killed right after printing it.
namespace plinkora {

/// Prints `text` and a line feed on standard output and flushes.
void printLine(std::string_view text);

/// Prints `prefix`, then `value` in signed decimal, then a line feed. Does not allocate.
void printLine(std::string_view prefix, std::int64_t value);

/// Stops the process: prints `text` as one line on standard error, then std::abort().
[[noreturn]] void fatal(std::string_view text);

} // namespace plinkora
