#pragma once

// Plinkora prints a diagnostic line on standard output for every key event ("Key event
// received: ...") and every announcement ("Announcing: ..."), flushed at once: a write() each.
// A key's line is written after its MIDI message has left, but what the write costs still
// depends on where standard output goes. The benchmarks send those lines to /dev/null, to a
// file (as ~/.xsession-errors), into a pipe or into a pseudo-terminal that a thread reads (as
// the journal or a terminal window would), or into a pipe whose reader is slow (it takes 512
// bytes a millisecond, so the pipe fills and writes block), and print their own figures on the
// standard output they were started with.

#include <fcntl.h>
#include <pty.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <streambuf>
#include <string>
#include <thread>

namespace plinkora::bench {

/// A stream buffer that writes straight to a file descriptor.
class FdStreamBuf final : public std::streambuf
{
public:
    explicit FdStreamBuf(int fd)
        : fd_(fd)
    {
        setp(buffer_.data(), buffer_.data() + buffer_.size());
    }
    ~FdStreamBuf() override { sync(); }
    FdStreamBuf(const FdStreamBuf&) = delete;
    FdStreamBuf& operator=(const FdStreamBuf&) = delete;

protected:
    int_type overflow(int_type ch) override
    {
        if (sync() != 0)
            return traits_type::eof();
        if (!traits_type::eq_int_type(ch, traits_type::eof())) {
            *pptr() = traits_type::to_char_type(ch);
            pbump(1);
        }
        return traits_type::not_eof(ch);
    }
    int sync() override
    {
        const char* data = pbase();
        std::size_t left = static_cast<std::size_t>(pptr() - pbase());
        while (left > 0) {
            const ssize_t written = ::write(fd_, data, left);
            if (written <= 0)
                return -1;
            data += written;
            left -= static_cast<std::size_t>(written);
        }
        setp(buffer_.data(), buffer_.data() + buffer_.size());
        return 0;
    }

private:
    int fd_;
    std::array<char, 4096> buffer_{};
};

/// Where Plinkora's own diagnostic lines go while a benchmark runs.
enum class DiagnosticsTarget
{
    Null,     // /dev/null
    File,     // a temporary file
    Pipe,     // a pipe read by a thread of this process
    Pty,      // a pseudo-terminal whose other end a thread of this process reads
    SlowPipe, // a pipe whose reader takes 512 bytes a millisecond
};

inline const char* nameOf(DiagnosticsTarget target)
{
    switch (target) {
    case DiagnosticsTarget::Null:
        return "null";
    case DiagnosticsTarget::File:
        return "file";
    case DiagnosticsTarget::Pipe:
        return "pipe";
    case DiagnosticsTarget::Pty:
        return "pty";
    case DiagnosticsTarget::SlowPipe:
        return "slowpipe";
    }
    return "";
}

inline const char* describe(DiagnosticsTarget target)
{
    switch (target) {
    case DiagnosticsTarget::Null:
        return "/dev/null";
    case DiagnosticsTarget::File:
        return "a file in /tmp (like ~/.xsession-errors)";
    case DiagnosticsTarget::Pipe:
        return "a pipe read by another thread (like the journal)";
    case DiagnosticsTarget::Pty:
        return "a pseudo-terminal read by another thread (like a terminal window)";
    case DiagnosticsTarget::SlowPipe:
        return "a pipe whose reader takes 512 bytes a millisecond (the pipe fills)";
    }
    return "";
}

/// Keeps the original standard output for the benchmark's report and points file descriptor 1
/// (which Plinkora's diagnostic lines use) where it is told. Restores it when destroyed.
class DiagnosticsSink
{
public:
    DiagnosticsSink()
        : reportFd_(::dup(STDOUT_FILENO))
        , reportBuf_(reportFd_)
        , report_(&reportBuf_)
    {
        if (reportFd_ < 0) {
            std::perror("dup");
            std::exit(1);
        }
    }
    ~DiagnosticsSink()
    {
        restore();
        report_.flush();
    }
    DiagnosticsSink(const DiagnosticsSink&) = delete;
    DiagnosticsSink& operator=(const DiagnosticsSink&) = delete;

    /// The benchmark's own output: the standard output the program was started with.
    std::ostream& report() { return report_; }
    bool reportIsTerminal() const { return ::isatty(reportFd_) == 1; }

    /// Sends Plinkora's diagnostic lines to `target` from now on.
    void redirect(DiagnosticsTarget target)
    {
        restore();
        std::fflush(stdout);
        bytesRead_ = 0;
        int writeEnd = -1;
        int readEnd = -1;
        switch (target) {
        case DiagnosticsTarget::Null:
            writeEnd = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
            break;
        case DiagnosticsTarget::File: {
            char path[] = "/tmp/plinkora-bench-XXXXXX";
            writeEnd = ::mkostemp(path, O_CLOEXEC);
            if (writeEnd >= 0)
                ::unlink(path);
            break;
        }
        case DiagnosticsTarget::Pipe:
        case DiagnosticsTarget::SlowPipe: {
            int ends[2];
            if (::pipe2(ends, O_CLOEXEC) == 0) {
                readEnd = ends[0];
                writeEnd = ends[1];
            }
            break;
        }
        case DiagnosticsTarget::Pty:
            if (::openpty(&readEnd, &writeEnd, nullptr, nullptr, nullptr) != 0)
                readEnd = writeEnd = -1;
            break;
        }
        if (writeEnd < 0 || ::dup2(writeEnd, STDOUT_FILENO) < 0) {
            std::perror("redirecting standard output");
            std::exit(1);
        }
        ::close(writeEnd);
        if (readEnd >= 0) {
            const bool slow = target == DiagnosticsTarget::SlowPipe;
            reader_ = std::thread([this, readEnd, slow] {
                std::array<char, 65536> buffer{};
                for (;;) {
                    const ssize_t got = ::read(readEnd, buffer.data(), slow ? 512 : buffer.size());
                    if (got <= 0)
                        break; // EOF (pipe) or EIO (pseudo-terminal) once the last writer is gone
                    bytesRead_ += static_cast<std::size_t>(got);
                    if (slow)
                        std::this_thread::sleep_for(std::chrono::milliseconds(1));
                }
                ::close(readEnd);
            });
        }
        redirected_ = true;
    }

    /// Points standard output back where it was; a pipe's reader finishes.
    void restore()
    {
        if (!redirected_)
            return;
        std::fflush(stdout);
        ::dup2(reportFd_, STDOUT_FILENO); // closes the last write end: a reader sees EOF
        if (reader_.joinable())
            reader_.join();
        redirected_ = false;
    }

    /// Bytes the reader thread took since the last redirect (valid after restore()).
    std::size_t readerBytes() const { return bytesRead_; }

private:
    int reportFd_;
    FdStreamBuf reportBuf_;
    std::ostream report_;
    std::thread reader_;
    std::size_t bytesRead_ = 0;
    bool redirected_ = false;
};

} // namespace plinkora::bench
