/// Any file in the place of the resource states: it is refused, or every text that it gives is one.
#include "fuzz_input.h"
#include "qoripc.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>

/// Bytes before the count of entries, and of the longest input that is written over a table.
enum { HEAD_SIZE = 16, INPUT_SIZE = 4096 };

/// A suite home in memory; gone when the run ends.
struct home {
    home()
    {
        require(setenv("QOR_HOME", path, 1) == 0 && shmrm_attach() == 0);
        require(shmrm_setdescript("g", "fip", "r", "message", 128) == 0);
        shmrm_detach();
        require(std::ifstream(file).read(good.data(), INPUT_SIZE + HEAD_SIZE).good());
    }
    ~home() { std::filesystem::remove_all(path); }

    char path[32] = "/dev/shm/qorfuzz.XXXXXX";
    const std::string file = std::string(mkdtemp(path)) + "/run/resource.shm";
    std::string good = std::string(INPUT_SIZE + HEAD_SIZE, '\0'); ///< the beginning of a table with one entry
};

void fuzz(std::string_view input)
{
    static const home where;
    const std::string_view over = input.substr(0, INPUT_SIZE);
    // Over a good table: behind its head, or with an odd first byte over that too.
    const bool over_head = !over.empty() && over[0] % 2 != 0;
    std::string content = where.good;
    content.replace(over_head ? 0 : HEAD_SIZE, over.size(), over);
    require((std::fstream(where.file, std::ios::in | std::ios::out) << content).flush().good());
    if (shmrm_attach() != 0)
        return;
    shmrm_state state = {};
    for (int i = 0; shmrm_getstate(i, &state) == 0; ++i)
        require(strnlen(state.rscname, sizeof(state.rscname)) < sizeof(state.rscname) &&
                strnlen(state.descript, sizeof(state.descript)) < sizeof(state.descript));
    require(shmrm_setdescript("g", "fip", "r", "again", 128) != SHMRM_ERR_NOTINIT);
    shmrm_detach();
}
