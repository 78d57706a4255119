#include "name_list.h"

#include "heap.h"
#include "tracersc.h"

#include <cerrno>

name_list_result read_name_list(const name_list_texts &texts, const char *path, name_list *list, int *ret)
{
    int size = 0;
    *ret = xmllib_enum_value(path, nullptr, &size);
    if (*ret != QOR_XMLERR_SUCCESS && *ret != QOR_XMLERR_NOTENOUGH_SIZE) {
        return NAMES_UNKNOWN;
    }
    const int num = size / QOR_XML_NAME_SLOT;
    trace(TRACE_DEBUG, texts.pname, __LINE__, texts.pfunc, "%s=%d", texts.count, num);
    if (num <= 0) {
        return NAMES_NONE;
    }
    if (!heap_assign(&list->slots, static_cast<std::size_t>(size))) {
        trace(TRACE_ERROR, texts.pname, __LINE__, texts.pfunc, "malloc(%d) (*%s) failed. (errno=%d)", size,
              texts.slots, errno);
        return NAMES_NO_MEMORY;
    }
    if (texts.tells_memory) {
        trace(TRACE_DEBUG, texts.pname, __LINE__, texts.pfunc, "malloc(%d) (%s) success.", size, texts.slots);
    }
    *ret = xmllib_enum_value(path, list->slots.data(), &size);
    if (*ret != QOR_XMLERR_SUCCESS) {
        trace(TRACE_ERROR, texts.pname, __LINE__, texts.pfunc, "xmllib_enum_value(%s) failed. (ret=%d)", path,
              *ret);
        return NAMES_UNREADABLE;
    }
    list->num = num;
    return NAMES_READ;
}
