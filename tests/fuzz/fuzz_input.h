/// What the fuzz targets share.
#ifndef FUZZ_INPUT_H
#define FUZZ_INPUT_H

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

/// Ends the run with a report when what must hold does not.
inline void require(bool holds)
{
    if (!holds) {
        abort();
    }
}

#endif
