#include "address_record.h"

#include "../fip.h"
#include "../text.h"
#include "../unique_fd.h"
#include "address_text.h"
#include "trace_source.h"

#include "qorhome.h"

#include <bit>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>

namespace
{

constexpr char magic[sizeof(fip_record::magic)] = "qorfip1";
constexpr char directory[] = "run/fip";

static_assert(std::has_unique_object_representations_v<fip_record>, "the file has no byte by chance");

/// Forms the name of a resource's file. Since '.' and '/' are written otherwise, it never leaves the
/// directory and never equals a temporary name.
/// @return 0, EINVAL, or ENAMETOOLONG
int record_path(const char *rscname, char (&path)[PATH_MAX])
{
    static constexpr char plain[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";
    const std::size_t length = strlen(rscname);
    if (length == 0 || length >= sizeof(fip_record::rscname)) {
        return EINVAL;
    }
    char name[3 * sizeof(fip_record::rscname)];
    char *end = name;
    for (const char *c = rscname; *c != '\0'; ++c) {
        const bool as_is = strchr(plain, *c) != nullptr;
        end +=
            as_is ? snprintf(end, 4, "%c", *c) : snprintf(end, 4, "%%%02X", static_cast<unsigned char>(*c));
    }
    char relative[sizeof(directory) + sizeof(name)];
    snprintf(relative, sizeof(relative), "%s/%s", directory, name);
    return qorhome_path(relative, path, sizeof(path));
}

template <std::size_t N>
bool is_text(const char (&field)[N])
{
    return memchr(field, '\0', N) != nullptr;
}

bool is_record(const fip_record &record, const char *rscname)
{
    return memcmp(record.magic, magic, sizeof(magic)) == 0 && is_text(record.rscname) &&
           is_text(record.address) && is_text(record.device) && strcmp(record.rscname, rscname) == 0;
}

constexpr char temporary_prefix[] = ".new.";

/// Removes a file that a run which was killed could not rename any more.
void sweep_file(int directory_fd, const char *name)
{
    constexpr std::size_t prefix = sizeof(temporary_prefix) - 1;
    if (strncmp(name, temporary_prefix, prefix) == 0) {
        const auto pid = static_cast<pid_t>(strtol(name + prefix, nullptr, 10));
        if (pid > 0 && kill(pid, 0) != 0 && errno == ESRCH) {
            unlinkat(directory_fd, name, 0);
        }
    }
}

/// Removes all such files. It asks for no memory: the address is up, and a run that has none left must still
/// come to its record.
void sweep()
{
    char path[PATH_MAX];
    if (qorhome_path(directory, path, sizeof(path)) != 0) {
        return;
    }
    const unique_fd files(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    alignas(dirent64) char entries[4096];
    ssize_t size = 0;
    while (files.fd >= 0 && (size = getdents64(files.fd, entries, sizeof(entries))) > 0) {
        const dirent64 *entry = nullptr;
        for (ssize_t at = 0; at < size; at += entry->d_reclen) {
            entry = reinterpret_cast<const dirent64 *>(entries + at);
            sweep_file(files.fd, entry->d_name);
        }
    }
}

/// Makes the directory when it is missing. @return 0 or an errno
int make_directory()
{
    const int ret = qorhome_mkdir("run");
    return ret != 0 ? ret : qorhome_mkdir(directory);
}

/// Writes a new file. Two runs for one resource may be here at the same time, so each has a name of its own.
/// @return 0 or an errno
int write_file(const char *path, const fip_record &record)
{
    unlink(path); // a run of this number was killed here
    const unique_fd file(open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (file.fd < 0) {
        return errno;
    }
    errno = EIO; // what a write that is not whole leaves untouched
    return write(file.fd, &record, sizeof(record)) == static_cast<ssize_t>(sizeof(record)) ? 0 : errno;
}

/// Replaces the record of record.rscname; the path is its file's. @return 0 or an errno
int replace(const char *path, const fip_record &record)
{
    if (const int ret = make_directory(); ret != 0) {
        return ret;
    }
    sweep();
    char relative[sizeof(directory) + sizeof(temporary_prefix) + 3 * sizeof(int)];
    snprintf(relative, sizeof(relative), "%s/%s%d", directory, temporary_prefix, static_cast<int>(getpid()));
    char temporary[PATH_MAX];
    int ret = qorhome_path(relative, temporary, sizeof(temporary));
    if (ret != 0) {
        return ret;
    }
    ret = write_file(temporary, record);
    if (ret == 0 && rename(temporary, path) != 0) {
        ret = errno;
    }
    if (ret != 0) {
        unlink(temporary);
    }
    return ret;
}

int file_record(const char *self, const fip_record &record)
{
    char path[PATH_MAX];
    int ret = record_path(record.rscname, path);
    if (ret == 0) {
        ret = replace(path, record);
        if (ret != 0) {
            unlink(path);
        }
    }
    if (ret != 0) {
        TRACE_AS(self, TRACE_WARNING, "%s of %s was not recorded. (errno=%d)", record.address, record.rscname,
                 ret);
    } else {
        TRACE_AS(self, TRACE_DEBUG, "recorded %s as %s.", record.address, record.device);
    }
    return ret;
}

/// Starts a record. @return false for a name that does not fit: cut, it would be another resource's
bool begin(const char *rscname, const char *address, fip_record *record)
{
    *record = {};
    copy_text(record->magic, magic);
    copy_text(record->address, address);
    return copy_text(record->rscname, rscname);
}

/// The bits of the mask that the target was given.
int prefix_length(const vdevinfo &target)
{
    return ipv6flag != 0 ? target.sipel.masklen : std::popcount(target.nipel.mask.s_addr);
}

/// Whether the record is of this address, however its text is written.
bool is_of(const fip_record &record, const char *addr)
{
    char recorded[sizeof(sipel::addr)];
    copy_part(recorded, record.address, strcspn(record.address, "/"));
    in_addr ours = {};
    in_addr theirs = {};
    in6_addr ours6 = {};
    in6_addr theirs6 = {};
    return fip_parse_addr(addr, &ours, &ours6) && fip_parse_addr(recorded, &theirs, &theirs6) &&
           ours.s_addr == theirs.s_addr && IN6_ARE_ADDR_EQUAL(&ours6, &theirs6);
}

} // namespace

int fip_record_read(const char *rscname, fip_record *record)
{
    char path[PATH_MAX];
    if (const int ret = record_path(rscname, path); ret != 0) {
        return ret;
    }
    const unique_fd file(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat st = {};
    if (file.fd < 0 || fstat(file.fd, &st) != 0) {
        return errno;
    }
    if (!qorhome_is_roots_own(st)) {
        return EPERM;
    }
    const bool whole = st.st_size == static_cast<off_t>(sizeof(*record)) &&
                       read(file.fd, record, sizeof(*record)) == static_cast<ssize_t>(sizeof(*record));
    return whole && is_record(*record, rscname) ? 0 : EINVAL;
}

int fip_record_up(const char *rscname, const vdevinfo &target, const char *device)
{
    if (rscname[0] == '\0') {
        return 0;
    }
    char address[sizeof(fip_record::address)];
    format_text(address, sizeof(address), "%s/%d", target.sipel.addr, prefix_length(target));
    fip_record record;
    if (!begin(rscname, address, &record)) {
        return EINVAL;
    }
    copy_text(record.device, device);
    return file_record(__func__, record);
}

int fip_record_down(const char *rscname, const char *addr)
{
    if (rscname[0] == '\0') {
        return 0;
    }
    fip_record record = {};
    const bool found = fip_record_read(rscname, &record) == 0;
    if (found && is_of(record, addr)) {
        copy_text(record.device, "");
        return file_record(__func__, record);
    }
    if (found && record.device[0] != '\0') {
        return 0;
    }
    return begin(rscname, addr, &record) ? file_record(__func__, record) : EINVAL;
}
