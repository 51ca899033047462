#include "common/diagnostics.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace plinkora {

namespace {

// The line a LineAfterwards holds. It is guarded by standard output's own lock (flockfile):
// a thread that prints a longer text in pieces holds that lock too, and the lock is recursive.
struct HeldLine
{
    std::array<char, 256> text{}; // with its line feed
    std::size_t length = 0;       // 0: none held
};
HeldLine heldLine;

// Standard output must be locked.
void writeHeldLine()
{
    if (heldLine.length == 0)
        return;
    std::fwrite(heldLine.text.data(), 1, heldLine.length, stdout);
    heldLine.length = 0;
}

void writeHeldLineAtExit()
{
    flockfile(stdout);
    writeHeldLine();
    std::fflush(stdout);
    funlockfile(stdout);
}

/// Locks standard output and writes the held line first.
class LockedStdout
{
public:
    LockedStdout()
    {
        flockfile(stdout);
        writeHeldLine();
    }
    ~LockedStdout()
    {
        std::fflush(stdout);
        funlockfile(stdout);
    }
    LockedStdout(const LockedStdout&) = delete;
    LockedStdout& operator=(const LockedStdout&) = delete;
};

} // namespace

void printLine(std::string_view text)
{
    const LockedStdout out;
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fputc('\n', stdout);
}

void printLine(std::string_view prefix, std::int64_t value)
{
    const LockedStdout out;
    std::fwrite(prefix.data(), 1, prefix.size(), stdout);
    std::fprintf(stdout, "%" PRId64 "\n", value);
}

LineAfterwards::LineAfterwards(const char* format, ...)
{
    [[maybe_unused]] static const int registered = std::atexit(writeHeldLineAtExit);
    flockfile(stdout);
    // One line is held at a time: an earlier one still held goes out first.
    if (heldLine.length != 0) {
        writeHeldLine();
        std::fflush(stdout);
    }
    std::va_list arguments;
    va_start(arguments, format);
    const int formatted = std::vsnprintf(heldLine.text.data(), heldLine.text.size() - 1, format, arguments);
    va_end(arguments);
    const std::size_t length = formatted < 0
        ? 0
        : std::min<std::size_t>(static_cast<std::size_t>(formatted), heldLine.text.size() - 2);
    heldLine.text[length] = '\n';
    heldLine.length = length + 1;
    funlockfile(stdout);
}

LineAfterwards::~LineAfterwards()
{
    const LockedStdout out; // writes it, unless another line already took it out
}

void fatal(std::string_view text)
{
    writeHeldLineAtExit();
    std::fprintf(stderr, "Fatal error: %.*s\n", static_cast<int>(text.size()), text.data());
    std::fflush(stderr);
    std::abort();
}

} // namespace plinkora
