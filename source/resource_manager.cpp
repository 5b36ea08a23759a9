// SPDX-License-Identifier: MIT
#include "internal/resource_manager.h"

#include <cstdlib>

#include "internal/common.h"

namespace
{

/// Begins a message: create and destroy name the resource, "[name] "; the others know none.
struct subject {
    const char* open = "";
    const char* name = "";
    const char* close = "";
};

subject named(const char* name) { return {"[", name, "] "}; }

/// Whether there is a table at all; complains in the name of @p function otherwise.
bool valid_table(const resource_manager_t* map, uint32_t count, const subject& who, const char* function)
{
    if (map == nullptr)
        log_as(function, LOG_LEVEL_W, "%s%s%sinvalid map\n", who.open, who.name, who.close);
    else if (count == 0)
        log_as(function, LOG_LEVEL_W, "%s%s%sinvalid count:%d\n", who.open, who.name, who.close, 0);
    return map != nullptr && count > 0;
}

/// As valid_table(), and whether @p id can be one.
bool valid_request(const resource_manager_t* map, uint32_t count, int32_t id, const subject& who, const char* function)
{
    if (!valid_table(map, count, who, function))
        return false;
    if (id < 0)
        log_as(function, LOG_LEVEL_W, "%s%s%sinvalid id:%d\n", who.open, who.name, who.close, id);
    return id >= 0;
}

resource_manager_t* find(resource_manager_t* map, uint32_t count, int32_t id)
{
    for (uint32_t i = 0; i < count; ++i) {
        if (map[i].id == id)
            return &map[i];
    }
    return nullptr;
}

} // namespace

int32_t resource_manager_create(const char* name, resource_manager_t* map, uint32_t count, int32_t info_size)
{
    if (!valid_table(map, count, named(name), __func__))
        return -1;
    if (info_size < 1) {
        log_w("[%s] invalid info_size:%d\n", name, info_size);
        return -1;
    }

    uint32_t index = 0;
    while (index < count && map[index].info.load() != nullptr)
        ++index;
    if (index == count) {
        log_w("[%s] create failed\n", name);
        resource_manager_print(map, count);
        return -1;
    }

    void* info = calloc(static_cast<size_t>(info_size), 1);
    if (info == nullptr) {
        log_w("[%s] malloc map[%d].info failed\n", name, static_cast<int>(index));
        return -1;
    }
    map[index].info.store(info);
    return static_cast<int32_t>(index);
}

int32_t resource_manager_destroy(const char* name, resource_manager_t* map, uint32_t count, int32_t id)
{
    if (!valid_request(map, count, id, named(name), __func__))
        return -1;

    resource_manager_t* slot = find(map, count, id);
    if (slot == nullptr) {
        log_w("[%s] not found id:%d\n", name, id);
        resource_manager_print(map, count);
        return 0;
    }
    void* info = slot->info.exchange(nullptr);
    if (info == nullptr) {
        log_w("[%s] already destroy id:%d\n", name, id);
        return 0;
    }
    free(info);
    return 0;
}

resource_manager_t* resource_manager_get(resource_manager_t* map, uint32_t count, int32_t id)
{
    if (!valid_request(map, count, id, {}, __func__))
        return nullptr;

    resource_manager_t* slot = find(map, count, id);
    if (slot == nullptr) {
        log_w("not found id:%d\n", id);
        resource_manager_print(map, count);
    }
    return slot;
}

void resource_manager_print(resource_manager_t* map, uint32_t count)
{
    if (!valid_table(map, count, {}, __func__))
        return;
    for (uint32_t i = 0; i < count; ++i) {
        void* info = map[i].info.load();
        log_i("resource_manager_print id:%d info:%p used:%d\n", map[i].id, info, info != nullptr ? 1 : 0);
    }
}
