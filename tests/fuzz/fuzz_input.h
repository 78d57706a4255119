/// What the fuzz targets share: their input as text, and the end of a run.
#ifndef FUZZ_INPUT_H
#define FUZZ_INPUT_H

#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

/// One run of the target.
void fuzz(std::string_view input);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz({reinterpret_cast<const char *>(data), size});
    return 0;
}

/// Calls `take` with each line of the input, in memory of its exact size that the callee may change.
template <class Take>
void each_line(std::string_view text, const Take &take)
{
    std::istringstream lines{std::string(text)};
    for (std::string line; std::getline(lines, line);)
        take(std::string(line).data());
}

/// Ends the run with a report when what must hold does not.
inline void require(bool holds)
{
    if (!holds)
        abort();
}

#endif
