/// What the fuzz targets share: their input as lines of text, or as faults of a packet.
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
    for (std::string line; std::getline(input, line);) {
        take(line.data());
    }
}

/// Spoils a packet by pairs of position and new value; a position beyond it sets its length instead.
inline void spoil(std::vector<std::uint8_t> *packet, const std::uint8_t *data, std::size_t size)
{
    for (std::size_t i = 0; i + 1 < size; i += 2) {
        if (data[i] < packet->size()) {
            (*packet)[data[i]] = data[i + 1];
        } else {
            packet->resize(data[i + 1]);
        }
    }
    packet->shrink_to_fit(); // no slack that hides a read beyond it
}

/// Ends the run with a report when what must hold does not.
inline void require(bool holds)
{
    if (!holds) {
        abort();
    }
}

#endif
