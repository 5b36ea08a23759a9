// SPDX-License-Identifier: MIT
/**
 * @file
 * Numbered slots of a fixed table: a module gives its callers a small integer
 * id instead of a pointer and checks every id that comes back.
 *
 * The functions take no lock: creation and destruction belong to one thread at
 * a time. What `info` points to is guarded by the slot's owner.
 */
#pragma once

#include <atomic>
#include <cstdint>

typedef struct resource_manager_e {
    int32_t id;              ///< fixed when the table is defined: slot i has id i
    std::atomic<void*> info; ///< the slot's payload, null while free; read by the registry without the lock
} resource_manager_t;

/// Takes the lowest free slot and gives it a zero-filled payload of @p info_size bytes; its index, or -1.
int32_t resource_manager_create(const char* name, resource_manager_t* map, uint32_t count, int32_t info_size);

/// Frees the payload of slot @p id; 0 also when there is none, -1 only for invalid arguments.
int32_t resource_manager_destroy(const char* name, resource_manager_t* map, uint32_t count, int32_t id);

/// The slot with this id, whether it has a payload or not; null for an unknown id.
resource_manager_t* resource_manager_get(resource_manager_t* map, uint32_t count, int32_t id);

/// Logs every slot.
void resource_manager_print(resource_manager_t* map, uint32_t count);
