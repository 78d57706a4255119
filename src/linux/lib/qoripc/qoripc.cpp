#include "qoripc.h"

#include "bounded_text.h"
#include "qorhome.h"
#include "unique_fd.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace
{

/// A holder that was stopped in the middle must not hang the node: the change is given up after this long.
constexpr long lock_wait_ms = 2000;
constexpr long lock_poll_ms = 1;
constexpr int read_tries = 1000;
constexpr std::uint32_t max_resources = 1024;

/// The start of every table file. Written last when the file is made.
struct table_id {
    char magic[8];
    std::uint32_t version;
    std::uint32_t capacity;
};

/// What changes of a resource's entry.
struct resource_part {
    char group[SHMRM_NAME_SIZE];
    char rscfree[SHMRM_FREE_SIZE];
    char descript[SHMRM_DESCRIPT_SIZE];
};

/// An entry. part[turn % 2] stands; the next text goes to the other one, and counting `turn` up makes it
/// stand. So a writer may be killed at any instant, and a reader needs no lock. The names never change.
struct resource_entry {
    char type[SHMRM_NAME_SIZE];
    char rscname[SHMRM_NAME_SIZE];
    std::atomic<std::uint32_t> turn;
    resource_part part[2];
};

struct resource_table {
    table_id id;
    std::atomic<std::uint32_t> count; // raised when a new entry is complete
    resource_entry entry[max_resources];
};

struct node_table {
    table_id id;
    std::atomic<std::uint32_t> npsimu;
};

static_assert(std::atomic<std::uint32_t>::is_always_lock_free && sizeof(std::atomic<std::uint32_t>) == 4,
              "the tables are shared between processes");

constexpr table_id resource_id = {{'q', 'o', 'r', '-', 'r', 's', 'c', '\0'}, 1, max_resources};
constexpr table_id node_id = {{'q', 'o', 'r', '-', 'n', 'o', 'd', 'e'}, 1, 1};

/// An attached table: the open file, which carries the writers' lock, and its mapping.
template <typename Table>
struct attachment {
    unique_fd file;
    Table *table = nullptr;

    attachment() = default;
    attachment(const attachment &) = delete;
    attachment &operator=(const attachment &) = delete;
    ~attachment() { release(); }
    void release()
    {
        if (table != nullptr) {
            munmap(std::exchange(table, nullptr), sizeof(Table));
        }
        file.reset();
    }
};

attachment<resource_table> resources;
attachment<node_table> node;
unique_fd ifconfig_lock;

/// Opens a file of run/, creating it when missing. O_NONBLOCK keeps a FIFO in its place from hanging us. Who
/// may read the file may lock it, and hold us up as long as he likes: so only root may.
int open_shared(const char *relative, unique_fd *file)
{
    constexpr int flags = O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    char path[PATH_MAX];
    if (qorhome_path(relative, path, sizeof(path)) != 0) {
        return SHMRM_ERR_FTOK;
    }
    unique_fd opened(open(path, flags, 0600));
    if (opened.fd < 0 && errno == ENOENT) {
        if (qorhome_mkdir("run") != 0) {
            return SHMRM_ERR_FTOK;
        }
        opened = unique_fd(open(path, flags, 0600));
    }
    struct stat st = {};
    if (opened.fd < 0 || fstat(opened.fd, &st) != 0 || !qorhome_is_roots_own(st)) {
        return SHMRM_ERR_SHMGET;
    }
    if ((st.st_mode & 07777) != 0600 && fchmod(opened.fd, 0600) != 0) {
        return SHMRM_ERR_SHMGET;
    }
    *file = std::move(opened);
    return 0;
}

int set_lock(int fd, int command, short type)
{
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    int ret = 0;
    do {
        ret = fcntl(fd, command, &lock);
    } while (ret != 0 && errno == EINTR);
    return ret == 0 ? 0 : errno;
}

/// A record lock belongs to the process: it is gone when the process is, and no child has it.
struct table_lock {
    int fd;
    bool held = false;

    explicit table_lock(int file) : fd(file) {}
    table_lock(const table_lock &) = delete;
    table_lock &operator=(const table_lock &) = delete;
    ~table_lock()
    {
        if (held) {
            set_lock(fd, F_SETLK, F_UNLCK);
        }
    }
    /// @return 0, or SHMCTL when the lock could not be had in time
    [[nodiscard]] int acquire()
    {
        struct timespec start = {};
        clock_gettime(CLOCK_MONOTONIC, &start);
        for (;;) {
            const int error = set_lock(fd, F_SETLK, F_WRLCK);
            if (error == 0) {
                held = true;
                return 0;
            }
            struct timespec now = {};
            clock_gettime(CLOCK_MONOTONIC, &now);
            const long waited_ms =
                (now.tv_sec - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1000000;
            if ((error != EAGAIN && error != EACCES) || waited_ms >= lock_wait_ms) {
                return SHMRM_ERR_SHMCTL;
            }
            const struct timespec pause = {0, lock_poll_ms * 1000000};
            nanosleep(&pause, nullptr);
        }
    }
};

enum class condition { ready, unfinished, foreign, unreadable };

/// Tells whether the id was not written, or in part: the rest of it is zero.
bool is_begun(const table_id &found, const table_id &id)
{
    const auto *bytes = reinterpret_cast<const unsigned char *>(&found);
    const auto *wanted = reinterpret_cast<const unsigned char *>(&id);
    const auto *differs = std::mismatch(bytes, bytes + sizeof(found), wanted).first;
    return differs != bytes + sizeof(found) &&
           std::all_of(differs, bytes + sizeof(found), [](unsigned char byte) { return byte == 0; });
}

/// Tells what the file holds. A creator killed half-way leaves zero bytes where the id belongs, or behind its
/// first bytes, for the id comes last; a short file with an id lost its end later on.
condition inspect(int fd, const table_id &id, std::size_t size)
{
    table_id found = {};
    struct stat st = {};
    if (fstat(fd, &st) != 0 || pread(fd, &found, sizeof(found), 0) < 0) {
        return condition::unreadable;
    }
    if (is_begun(found, id) && st.st_size <= static_cast<off_t>(size)) {
        return condition::unfinished;
    }
    if (memcmp(&found, &id, sizeof(found)) != 0 || st.st_size != static_cast<off_t>(size)) {
        return condition::foreign;
    }
    // Touching a hole of the mapping would be SIGBUS once the disk is full.
    return st.st_blocks * 512 < st.st_size ? condition::unfinished : condition::ready;
}

int complete(int fd, const table_id &id, std::size_t size)
{
    int error = 0;
    do {
        error = posix_fallocate(fd, 0, static_cast<off_t>(size));
    } while (error == EINTR);
    if (error != 0) {
        return SHMRM_ERR_NOTENOUGH;
    }
    return pwrite(fd, &id, sizeof(id), 0) == static_cast<ssize_t>(sizeof(id)) ? 0 : SHMRM_ERR_SHMCTL;
}

/// Makes the file a whole table of this layout, or finds that it is one; only making it needs the lock, so
/// that a stopped writer keeps nobody from attaching.
int prepare(int fd, const table_id &id, std::size_t size)
{
    condition state = inspect(fd, id, size);
    if (state == condition::unfinished) {
        table_lock lock(fd);
        if (const int ret = lock.acquire(); ret != 0) {
            return ret;
        }
        state = inspect(fd, id, size);
        if (state == condition::unfinished) {
            return complete(fd, id, size);
        }
    }
    switch (state) {
    case condition::ready:
        return 0;
    case condition::foreign:
        return SHMRM_ERR_LOADINFO;
    default:
        return SHMRM_ERR_SHMCTL;
    }
}

template <typename Table>
int attach(attachment<Table> &to, const char *relative, const table_id &id)
{
    if (to.table != nullptr) {
        return 0;
    }
    unique_fd file;
    if (const int ret = open_shared(relative, &file); ret != 0) {
        return ret;
    }
    if (const int ret = prepare(file.fd, id, sizeof(Table)); ret != 0) {
        return ret;
    }
    void *mapped = mmap(nullptr, sizeof(Table), PROT_READ | PROT_WRITE, MAP_SHARED, file.fd, 0);
    if (mapped == MAP_FAILED) {
        return SHMRM_ERR_SHMAT;
    }
    to.table = static_cast<Table *>(mapped);
    to.file = std::move(file);
    return 0;
}

template <typename Table>
int detach(attachment<Table> &from)
{
    if (from.table == nullptr) {
        return SHMRM_ERR_NOTINIT;
    }
    from.release();
    return 0;
}

bool is_short(const char *text)
{
    return strnlen(text, SHMRM_NAME_SIZE) < SHMRM_NAME_SIZE;
}

/// Any name but null and over-long ones: addresses changed by hand are filed under the empty name.
bool is_name(const char *text)
{
    return text != nullptr && is_short(text);
}

/// @return 0, NOTINIT or INVALIDPARAM
int check_filing(const char *group, const char *type, const char *rscname, const void *data, int size,
                 int max)
{
    if (resources.table == nullptr) {
        return SHMRM_ERR_NOTINIT;
    }
    const bool group_fits = group == nullptr || is_short(group);
    const bool data_fits = data != nullptr && size >= 1 && size <= max;
    return group_fits && is_name(type) && is_name(rscname) && data_fits ? 0 : SHMRM_ERR_INVALIDPARAM;
}

std::uint32_t entry_count(const resource_table &table)
{
    const std::uint32_t count = table.count.load(std::memory_order_acquire);
    return count < max_resources ? count : max_resources;
}

resource_entry *find(resource_table &table, const char *type, const char *rscname)
{
    const std::uint32_t count = entry_count(table);
    for (std::uint32_t i = 0; i < count; ++i) {
        resource_entry &entry = table.entry[i];
        if (strncmp(entry.type, type, SHMRM_NAME_SIZE) == 0 &&
            strncmp(entry.rscname, rscname, SHMRM_NAME_SIZE) == 0) {
            return &entry;
        }
    }
    return nullptr;
}

/// Changes an entry, or adds it, under the table's lock. `change` edits the part that will stand.
template <typename Change>
int file_resource(const char *group, const char *type, const char *rscname, Change change)
{
    resource_table &table = *resources.table;
    table_lock lock(resources.file.fd);
    if (const int ret = lock.acquire(); ret != 0) {
        return ret;
    }
    resource_entry *entry = find(table, type, rscname);
    const std::uint32_t count = entry_count(table);
    const bool is_new = entry == nullptr;
    if (is_new) {
        if (count == max_resources) {
            return SHMRM_ERR_MAXRSC;
        }
        entry = &table.entry[count];
        copy_text(entry->type, type);
        copy_text(entry->rscname, rscname);
    }
    // Read with acquire: who sees bytes of the new part also sees that the turn had come to this one.
    const std::uint32_t turn = entry->turn.load(std::memory_order_acquire);
    resource_part part = is_new ? resource_part{} : entry->part[turn % 2];
    if (group != nullptr) {
        copy_text(part.group, group);
    }
    change(part);
    entry->part[(turn + 1) % 2] = part;
    entry->turn.store(turn + 1, std::memory_order_release);
    if (is_new) {
        table.count.store(count + 1, std::memory_order_release);
    }
    return 0;
}

} // namespace

int shmrm_attach(void)
{
    return attach(resources, "run/resource.shm", resource_id);
}

int shmrm_detach(void)
{
    return detach(resources);
}

int shmrm_setdescript(const char *group, const char *type, const char *rscname, const char *text, int size)
{
    if (const int ret = check_filing(group, type, rscname, text, size, SHMRM_DESCRIPT_SIZE); ret != 0) {
        return ret;
    }
    return file_resource(group, type, rscname, [text, size](resource_part &part) {
        copy_part(part.descript, text, static_cast<std::size_t>(size));
    });
}

int shmrm_setrscfree(const char *group, const char *type, const char *rscname, const void *data, int size)
{
    if (const int ret = check_filing(group, type, rscname, data, size, SHMRM_FREE_SIZE); ret != 0) {
        return ret;
    }
    return file_resource(group, type, rscname, [data, size](resource_part &part) {
        memset(part.rscfree, 0, sizeof(part.rscfree));
        memcpy(part.rscfree, data, static_cast<std::size_t>(size));
    });
}

int shmrm_getstate(int index, struct shmrm_state *state)
{
    if (resources.table == nullptr) {
        return SHMRM_ERR_NOTINIT;
    }
    if (index < 0 || state == nullptr) {
        return SHMRM_ERR_INVALIDPARAM;
    }
    resource_table &table = *resources.table;
    if (static_cast<std::uint32_t>(index) >= entry_count(table)) {
        return SHMRM_ERR_NOTFOUND;
    }
    resource_entry &entry = table.entry[index];
    for (int i = 0; i < read_tries; ++i) {
        const std::uint32_t turn = entry.turn.load(std::memory_order_acquire);
        const resource_part part = entry.part[turn % 2];
        // An addition of nothing, for unlike a load it cannot overtake the reading of the part.
        if (entry.turn.fetch_add(0, std::memory_order_acq_rel) == turn) {
            // Another process wrote them: a terminator may lack there, never here.
            copy_part(state->group, part.group, sizeof(part.group));
            copy_part(state->type, entry.type, sizeof(entry.type));
            copy_part(state->rscname, entry.rscname, sizeof(entry.rscname));
            copy_part(state->rscfree, part.rscfree, sizeof(part.rscfree));
            copy_part(state->descript, part.descript, sizeof(part.descript));
            return 0;
        }
    }
    return SHMRM_ERR_SHMCTL;
}

int shmnm_attach(void)
{
    return attach(node, "run/node.shm", node_id);
}

int shmnm_detach(void)
{
    return detach(node);
}

int shmnm_getnpsimuflag(int *flag)
{
    if (node.table == nullptr) {
        return SHMRM_ERR_NOTINIT;
    }
    if (flag == nullptr) {
        return SHMRM_ERR_INVALIDPARAM;
    }
    *flag = node.table->npsimu.load() != 0 ? 1 : 0;
    return 0;
}

int shmnm_setnpsimuflag(int flag)
{
    if (node.table == nullptr) {
        return SHMRM_ERR_NOTINIT;
    }
    node.table->npsimu.store(flag != 0 ? 1 : 0);
    return 0;
}

int sem_attach(void)
{
    return ifconfig_lock.fd >= 0 ? 0 : open_shared("run/ifconfig.lock", &ifconfig_lock);
}

int sem_detach(void)
{
    if (ifconfig_lock.fd < 0) {
        return SHMRM_ERR_NOTINIT;
    }
    ifconfig_lock.reset(); // the kernel drops the record lock with the file
    return 0;
}

int sem_entercrit_ifconfig(void)
{
    if (ifconfig_lock.fd < 0) {
        return SHMRM_ERR_NOTINIT;
    }
    return set_lock(ifconfig_lock.fd, F_SETLKW, F_WRLCK) == 0 ? 0 : SHMRM_ERR_SHMCTL;
}

int sem_leavecrit_ifconfig(void)
{
    if (ifconfig_lock.fd < 0) {
        return SHMRM_ERR_NOTINIT;
    }
    return set_lock(ifconfig_lock.fd, F_SETLK, F_UNLCK) == 0 ? 0 : SHMRM_ERR_SHMCTL;
}
