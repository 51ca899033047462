#include "common/diagnostics.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>

namespace plinkora {

void printLine(std::string_view text)
{
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

void printLine(std::string_view prefix, std::int64_t value)
{
    std::fwrite(prefix.data(), 1, prefix.size(), stdout);
    std::fprintf(stdout, "%" PRId64 "\n", value);
    std::fflush(stdout);
}

void fatal(std::string_view text)
{
    std::fflush(stdout);
    std::fprintf(stderr, "Fatal error: %.*s\n", static_cast<int>(text.size()), text.data());
    std::fflush(stderr);
    std::abort();
}

} // namespace plinkora
