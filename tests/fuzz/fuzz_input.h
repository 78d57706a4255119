/// What the fuzz targets share: their input as lines of text, and the end of a run.
#ifndef FUZZ_INPUT_H
#define FUZZ_INPUT_H

#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

/// Calls `take` with each line of the input, in memory of its exact size that the callee may change.
template <class Take>
void each_line(const std::uint8_t *data, std::size_t size, const Take &take)
{
    std::istringstream input(std::string(reinterpret_cast<const char *>(data), size));
    for (std::string line; std::getline(input, line);)
        take(line.data());
}

/// Ends the run with a report when what must hold does not.
inline void require(bool holds)
{
    if (!holds)
        abort();
}

#endif
