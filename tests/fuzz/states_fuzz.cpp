/// Any file in the place of the resource states: it is refused, or every text that it gives is one.
#include "fuzz_input.h"
#include "qoripc.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>

/// Bytes before the count of entries, and of the longest input that is written over a table.
enum { HEAD_SIZE = 16, INPUT_SIZE = 4096 };

/// A suite home in memory; gone when the run ends.
struct home {
    home()
    {
        require(mkdtemp(path) != nullptr && setenv("QOR_HOME", path, 1) == 0);
        file = std::string(path) + "/run/resource.shm";
        require(shmrm_attach() == 0 && shmrm_setdescript("g", "fip", "r", "message", 128) == 0);
        shmrm_detach();
        FILE *table = fopen(file.c_str(), "re");
        require(table != nullptr && fread(good.data(), 1, good.size(), table) == good.size());
        fclose(table);
    }
    ~home() { std::filesystem::remove_all(path); }

    char path[32] = "/dev/shm/qorfuzz.XXXXXX";
    std::string file;
    std::string good = std::string(INPUT_SIZE + HEAD_SIZE, '\0'); ///< the beginning of a table with one entry
};

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const home where;
    size = std::min<std::size_t>(size, INPUT_SIZE);
    // Over a good table: behind its head, or with an odd first byte over that too.
    const bool over_head = size > 0 && data[0] % 2 != 0;
    std::string content = where.good;
    content.replace(over_head ? 0 : HEAD_SIZE, size, reinterpret_cast<const char *>(data), size);
    FILE *table = fopen(where.file.c_str(), "r+e");
    require(table != nullptr && fwrite(content.data(), 1, content.size(), table) == content.size());
    require(fclose(table) == 0);
    if (shmrm_attach() != 0)
        return 0;
    shmrm_state state = {};
    for (int i = 0; shmrm_getstate(i, &state) == 0; ++i) {
        require(strnlen(state.rscname, sizeof(state.rscname)) < sizeof(state.rscname) &&
                strnlen(state.descript, sizeof(state.descript)) < sizeof(state.descript));
    }
    require(shmrm_setdescript("g", "fip", "r", "again", 128) != SHMRM_ERR_NOTINIT);
    shmrm_detach();
    return 0;
}
