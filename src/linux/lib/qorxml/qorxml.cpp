#include "qorxml.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <memory>
#include <new>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "qorhome.h"
#include "unique_fd.h"
#include "xmlpath.h"
#include "xmltree.h"

namespace
{
using tree_owner = std::unique_ptr<xml_tree>;

struct loaded_policy {
    std::string type;
    int loads;
    tree_owner tree;
};

/// What a handle points to. The record stays until the library stops, without a tree once it is unloaded: so
/// an old handle can't come to mean a file that was loaded later.
struct path_config {
    tree_owner tree;
};

struct library_state {
    tree_owner running;
    path_config *selected = nullptr; // null: the running configuration is current
    std::vector<loaded_policy> policies;
    std::vector<std::unique_ptr<path_config>> files;
};

/// Memory that the first call of a run asks for: where there is none at all, not even nothrow new may be
/// asked, for that would have no room for the exception that it catches.
struct library_deleter {
    void operator()(library_state *state) const
    {
        state->~library_state();
        free(state);
    }
};

std::unique_ptr<library_state, library_deleter> library; // null while stopped

/// Every operation runs in here: started library, no exception out of it.
template <typename Operation>
int run(Operation operation)
{
    if (library == nullptr) {
        return QOR_XMLERR_NOT_INIT;
    }
    try {
        return operation();
    } catch (const std::exception &) { // memory ran out
        return QOR_XMLERR_OTHER;
    }
}

bool is_acceptable(const struct stat &st)
{
    return qorhome_is_roots_own(st) && st.st_size <= static_cast<off_t>(xmltree_max_bytes);
}

/// NOTEXIST_PATH when there is no such file, INVALID_XML when it can't be trusted or read.
int read_file(const char *file, std::string *bytes)
{
    // NONBLOCK: a FIFO in the file's place must not hold the agent up.
    const unique_fd input(open(file, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    if (input.fd < 0) {
        return errno == ENOENT ? QOR_XMLERR_NOTEXIST_PATH : QOR_XMLERR_INVALID_XML;
    }
    struct stat st = {};
    if (fstat(input.fd, &st) != 0 || !is_acceptable(st)) {
        return QOR_XMLERR_INVALID_XML;
    }
    // A file that shrinks or grows meanwhile gives a part of a document, which does not parse.
    bytes->resize(static_cast<std::size_t>(st.st_size));
    std::size_t filled = 0;
    while (filled < bytes->size()) {
        const ssize_t got = read(input.fd, bytes->data() + filled, bytes->size() - filled);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return QOR_XMLERR_INVALID_XML;
        }
        filled += static_cast<std::size_t>(got);
    }
    return QOR_XMLERR_SUCCESS;
}

int load_file(const char *file, tree_owner *tree)
{
    std::string bytes;
    if (const int ret = read_file(file, &bytes); ret != QOR_XMLERR_SUCCESS) {
        return ret;
    }
    auto parsed = std::make_unique<xml_tree>();
    const int ret = xmltree_parse(bytes, parsed.get());
    if (ret == QOR_XMLERR_SUCCESS) {
        *tree = std::move(parsed);
    }
    return ret;
}

/// As load_file, for a configuration: a missing file is as bad as a broken one.
int load_config_file(const char *file, tree_owner *tree)
{
    const int ret = load_file(file, tree);
    return ret == QOR_XMLERR_NOTEXIST_PATH ? QOR_XMLERR_INVALID_XML : ret;
}

xml_tree *current_config()
{
    return library->selected != nullptr ? library->selected->tree.get() : library->running.get();
}

path_config *find_handle(const void *handle)
{
    const auto found = std::find_if(library->files.begin(), library->files.end(), [handle](const auto &file) {
        return file.get() == handle && file->tree != nullptr;
    });
    return found != library->files.end() ? found->get() : nullptr;
}

auto find_policy(const char *type)
{
    return std::find_if(library->policies.begin(), library->policies.end(),
                        [type](const loaded_policy &policy) { return policy.type == type; });
}

/// Offers every place where `path` may be found to `visit(tree, path)`, best first, until one is taken.
template <typename Visit>
void visit_sources(const xml_path &path, Visit visit)
{
    if (visit(current_config(), path)) {
        return;
    }
    const xml_path paths[] = {path, xmlpath_without_names(path)};
    for (const xml_path &policy_path : paths) {
        for (const loaded_policy &policy : library->policies) {
            if (visit(policy.tree.get(), policy_path)) {
                return;
            }
        }
    }
}

int get_value(const xml_path &path, int type, void *buf, int *size)
{
    int ret = QOR_XMLERR_NOTEXIST_PATH;
    visit_sources(path, [&](xml_tree *tree, const xml_path &source_path) {
        const std::uint32_t element = xmlpath_find(tree, source_path);
        if (element == 0) {
            return false;
        }
        ret = xmlpath_put_value(xmltree_text(*tree, element), type, buf, size);
        return true;
    });
    return ret;
}

/// What all readers check, in this order, before they look anything up.
int prepare_read(bool arguments_valid, const char *path_text, xml_path *path)
{
    if (current_config() == nullptr) {
        return QOR_XMLERR_NOT_LOAD;
    }
    if (!arguments_valid || path_text == nullptr) {
        return QOR_XMLERR_OTHER;
    }
    return xmlpath_split(path_text, path);
}

bool is_value_type(int type)
{
    return type == QOR_XMLTYPE_TEXT || type == QOR_XMLTYPE_INT;
}

} // namespace

int xmllib_init(const char *type)
{
    if (type == nullptr) {
        return QOR_XMLERR_OTHER;
    }
    if (library == nullptr) {
        void *memory = malloc(sizeof(library_state));
        library.reset(memory != nullptr ? new (memory) library_state : nullptr);
    }
    return library != nullptr ? QOR_XMLERR_SUCCESS : QOR_XMLERR_OTHER;
}

int xmllib_term(void)
{
    return run([] {
        library.reset();
        return QOR_XMLERR_SUCCESS;
    });
}

int xmllib_load_config(void)
{
    return run([] {
        char file[PATH_MAX];
        if (qorhome_path("etc/cluster.xml", file, sizeof(file)) != 0) {
            return static_cast<int>(QOR_XMLERR_INVALID_XML);
        }
        const int ret = load_config_file(file, &library->running);
        if (ret == QOR_XMLERR_SUCCESS) {
            library->selected = nullptr;
        }
        return ret;
    });
}

int xmllib_unload_config(void)
{
    return run([] {
        if (library->running == nullptr) {
            return QOR_XMLERR_NOT_LOAD;
        }
        library->running.reset();
        return QOR_XMLERR_SUCCESS;
    });
}

int xmllib_load_policy(const char *type)
{
    return run([type]() -> int {
        if (type == nullptr || type[0] == '\0' || type[0] == '.' ||
            std::string_view(type).find('/') != std::string_view::npos) {
            return QOR_XMLERR_OTHER;
        }
        if (const auto found = find_policy(type); found != library->policies.end()) {
            ++found->loads;
            return QOR_XMLERR_SUCCESS;
        }
        char file[PATH_MAX];
        const std::string relative = std::string("etc/policy/") + type + ".xml";
        if (qorhome_path(relative.c_str(), file, sizeof(file)) != 0) {
            return QOR_XMLERR_OTHER;
        }
        loaded_policy policy = {type, 1, nullptr};
        const int ret = load_file(file, &policy.tree);
        if (ret == QOR_XMLERR_SUCCESS) {
            library->policies.push_back(std::move(policy));
        }
        return ret;
    });
}

int xmllib_unload_policy(const char *type)
{
    return run([type] {
        const auto found = type != nullptr ? find_policy(type) : library->policies.end();
        if (found == library->policies.end()) {
            return QOR_XMLERR_NOTEXIST_PATH;
        }
        if (--found->loads == 0) {
            library->policies.erase(found);
        }
        return QOR_XMLERR_SUCCESS;
    });
}

int xmllib_get_value(const char *path_text, int type, void *buf, int *size)
{
    return run([=] {
        xml_path path;
        const bool valid = buf != nullptr && size != nullptr && is_value_type(type);
        const int ret = prepare_read(valid, path_text, &path);
        return ret == QOR_XMLERR_SUCCESS ? get_value(path, type, buf, size) : ret;
    });
}

int xmllib_get_srvsep_value(const char *server, const char *path_text, int type, void *buf, int *size)
{
    return run([=] {
        xml_path path;
        const bool valid = server != nullptr && buf != nullptr && size != nullptr && is_value_type(type);
        if (const int ret = prepare_read(valid, path_text, &path); ret != QOR_XMLERR_SUCCESS) {
            return ret;
        }
        const std::string server_key = std::string("server@") + server;
        const xml_path separate = xmlpath_for_server(path, server_key);
        const bool has_separate = !separate.empty() && xmlpath_find(current_config(), separate) != 0;
        return get_value(has_separate ? separate : path, type, buf, size);
    });
}

int xmllib_enum_value(const char *path_text, void *buf, int *size)
{
    return run([=] {
        xml_path path;
        if (const int ret = prepare_read(size != nullptr, path_text, &path); ret != QOR_XMLERR_SUCCESS) {
            return ret;
        }
        std::vector<std::string_view> names;
        visit_sources(path, [&names](xml_tree *tree, const xml_path &source_path) {
            names = xmlpath_names(tree, source_path);
            return !names.empty();
        });
        return xmlpath_put_names(names, buf, size);
    });
}

int xmllib_load_pathconfig(const char *file, void **handle)
{
    return run([=]() -> int {
        if (file == nullptr || handle == nullptr) {
            return QOR_XMLERR_OTHER;
        }
        *handle = nullptr;
        auto config = std::make_unique<path_config>();
        const int ret = load_config_file(file, &config->tree);
        if (ret == QOR_XMLERR_SUCCESS) {
            library->files.push_back(std::move(config));
            *handle = library->files.back().get();
        }
        return ret;
    });
}

int xmllib_change_config(void *handle)
{
    return run([handle] {
        path_config *config = find_handle(handle);
        if (config == nullptr) {
            return QOR_XMLERR_INVALID_HANDLE;
        }
        library->selected = config;
        return QOR_XMLERR_SUCCESS;
    });
}

int xmllib_unload_pathconfig(void *handle)
{
    return run([handle] {
        path_config *config = find_handle(handle);
        if (config == nullptr) {
            return QOR_XMLERR_INVALID_HANDLE;
        }
        config->tree.reset();
        if (library->selected == config) {
            library->selected = nullptr;
        }
        return QOR_XMLERR_SUCCESS;
    });
}
