// SPDX-License-Identifier: MIT
/**
 * @file
 * Intrusive circular doubly-linked list with a head node. The list owns
 * nothing and takes no lock: its user guards it.
 */
#pragma once

#include <cstddef>
#include <cstdint>

struct list_head_t {
    list_head_t* next;
    list_head_t* prev;
};

/// Links of a node that is in no list; following one faults at once.
inline list_head_t* const LIST_POISON_NEXT = reinterpret_cast<list_head_t*>(uintptr_t{0x100});
inline list_head_t* const LIST_POISON_PREV = reinterpret_cast<list_head_t*>(uintptr_t{0x200});

inline void list_init(list_head_t* head)
{
    head->next = head;
    head->prev = head;
}

inline bool list_empty(const list_head_t* head) { return head->next == head; }

inline void list_add_tail(list_head_t* node, list_head_t* head)
{
    node->prev = head->prev;
    node->next = head;
    head->prev->next = node;
    head->prev = node;
}

/// Unlinks @p node and poisons its links.
inline void list_del(list_head_t* node)
{
    node->next->prev = node->prev;
    node->prev->next = node->next;
    node->next = LIST_POISON_NEXT;
    node->prev = LIST_POISON_PREV;
}

/// The record of which @p node is the member @p member.
// NOLINTNEXTLINE(bugprone-macro-parentheses): a member's name
#define list_entry(node, type, member) (reinterpret_cast<type*>(reinterpret_cast<char*>(node) - offsetof(type, member)))
