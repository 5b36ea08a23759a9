// SPDX-License-Identifier: MIT
#include "internal/resource_manager.h"

#include <cstdlib>

#include "internal/common.h"

namespace
{

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
    if (map == nullptr) {
        log_w("[%s] invalid map\n", name);
        return -1;
    }
    if (count == 0) {
        log_w("[%s] invalid count:%d\n", name, static_cast<int>(count));
        return -1;
    }
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
    if (map == nullptr) {
        log_w("[%s] invalid map\n", name);
        return -1;
    }
    if (count == 0) {
        log_w("[%s] invalid count:%d\n", name, static_cast<int>(count));
        return -1;
    }
    if (id < 0) {
        log_w("[%s] invalid id:%d\n", name, id);
        return -1;
    }

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
    if (map == nullptr) {
        log_w("invalid map\n");
        return nullptr;
    }
    if (count == 0) {
        log_w("invalid count:%d\n", static_cast<int>(count));
        return nullptr;
    }
    if (id < 0) {
        log_w("invalid id:%d\n", id);
        return nullptr;
    }

    resource_manager_t* slot = find(map, count, id);
    if (slot == nullptr) {
        log_w("not found id:%d\n", id);
        resource_manager_print(map, count);
    }
    return slot;
}

void resource_manager_print(resource_manager_t* map, uint32_t count)
{
    if (map == nullptr) {
        log_w("invalid map\n");
        return;
    }
    if (count == 0) {
        log_w("invalid count:%d\n", static_cast<int>(count));
        return;
    }
    for (uint32_t i = 0; i < count; ++i) {
        void* info = map[i].info.load();
        log_i("resource_manager_print id:%d info:%p used:%d\n", map[i].id, info, info != nullptr ? 1 : 0);
    }
}
