/* SPDX-License-Identifier: MIT */
/*
 * A plugin of the emulator that counts instructions, thread by thread: those of the program itself, and all. It prints
 * them when the program ends, a line for each thread that had a name; and how often the program itself read or wrote at
 * an address that is not a multiple of the size, or of four: eight bytes need no more than that on ARMv7.
 *
 *     qemu-arm -plugin instructions.so,out=FILE PROGRAM
 *
 * The emulator's header is not packaged; this is the part of it that is used (version 1 of the interface).
 */
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>

#define EXPORT __attribute__((visibility("default")))

struct qemu_plugin_tb;
struct qemu_plugin_insn;
extern size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb* block);
extern uint64_t qemu_plugin_tb_vaddr(const struct qemu_plugin_tb* block);
extern uint64_t qemu_plugin_start_code(void);
extern uint64_t qemu_plugin_end_code(void);
extern void qemu_plugin_register_vcpu_tb_trans_cb(uint64_t id, void (*call)(uint64_t id, struct qemu_plugin_tb* block));
extern void qemu_plugin_register_vcpu_tb_exec_cb(struct qemu_plugin_tb* block, void (*call)(unsigned cpu, void* data),
                                                 int registers, void* data);
extern struct qemu_plugin_insn* qemu_plugin_tb_get_insn(const struct qemu_plugin_tb* block, size_t index);
extern uint64_t qemu_plugin_insn_vaddr(const struct qemu_plugin_insn* instruction);
extern unsigned qemu_plugin_mem_size_shift(uint32_t access);
extern void qemu_plugin_register_vcpu_mem_cb(struct qemu_plugin_insn* instruction,
                                             void (*call)(unsigned cpu, uint32_t access, uint64_t at, void* data),
                                             int registers, int reads_or_writes, void* data);
extern void qemu_plugin_register_atexit_cb(uint64_t id, void (*call)(uint64_t id, void* data), void* data);

EXPORT int qemu_plugin_version = 1;
EXPORT int qemu_plugin_install(uint64_t id, const void* info, int argc, char** argv);

enum { THREADS_MAX = 256, NAME_BYTES = 16, READS_AND_WRITES = 3, WORD = 4 };

struct count {
    char name[NAME_BYTES];
    uint64_t own, all;
};
static struct count counts[THREADS_MAX];
static int threads;
static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_key_t thread_end;
static char path[4096];
static __thread struct count* mine;
static uint64_t unaligned, first_unaligned; /* how many, and the address of the first such instruction */

/* The name that the program gave the thread is the emulator's thread's, too. */
static void name_thread(void* count) { prctl(PR_GET_NAME, ((struct count*)count)->name); }

static struct count* this_thread(void)
{
    pthread_mutex_lock(&mutex);
    mine = &counts[threads < THREADS_MAX - 1 ? threads++ : threads];
    pthread_mutex_unlock(&mutex);
    pthread_setspecific(thread_end, mine);
    return mine;
}

static void execute(unsigned cpu, void* data)
{
    struct count* const count = mine != NULL ? mine : this_thread();
    const uintptr_t instructions = (uintptr_t)data >> 1;
    (void)cpu;
    count->all += instructions;
    if (((uintptr_t)data & 1) != 0)
        count->own += instructions;
}

static void access_memory(unsigned cpu, uint32_t access, uint64_t at, void* data)
{
    const uint64_t bytes = UINT64_C(1) << qemu_plugin_mem_size_shift(access);
    (void)cpu;
    if (at % (bytes < WORD ? bytes : WORD) != 0 && __atomic_fetch_add(&unaligned, 1, __ATOMIC_RELAXED) == 0)
        first_unaligned = (uintptr_t)data - qemu_plugin_start_code();
}

static void translate(uint64_t id, struct qemu_plugin_tb* block)
{
    const uint64_t at = qemu_plugin_tb_vaddr(block);
    const uintptr_t own = at >= qemu_plugin_start_code() && at < qemu_plugin_end_code();
    (void)id;
    qemu_plugin_register_vcpu_tb_exec_cb(block, execute, 0, (void*)(qemu_plugin_tb_n_insns(block) << 1 | own));
    for (size_t i = 0; own && i < qemu_plugin_tb_n_insns(block); ++i) {
        struct qemu_plugin_insn* const instruction = qemu_plugin_tb_get_insn(block, i);
        qemu_plugin_register_vcpu_mem_cb(instruction, access_memory, 0, READS_AND_WRITES,
                                         (void*)(uintptr_t)qemu_plugin_insn_vaddr(instruction));
    }
}

static void print(uint64_t id, void* data)
{
    FILE* const out = fopen(path, "w");
    (void)id;
    (void)data;
    if (mine != NULL)
        name_thread(mine);
    if (out == NULL)
        return;
    for (int i = 0; i < threads; ++i)
        fprintf(out, "%s %llu %llu\n", counts[i].name[0] != '\0' ? counts[i].name : "-",
                (unsigned long long)counts[i].own, (unsigned long long)counts[i].all);
    fprintf(out, "unaligned %llu, the first %llu bytes into the code\n", (unsigned long long)unaligned,
            (unsigned long long)first_unaligned);
    fclose(out);
}

int qemu_plugin_install(uint64_t id, const void* info, int argc, char** argv)
{
    (void)info;
    for (int i = 0; i < argc; ++i)
        if (strncmp(argv[i], "out=", 4) == 0)
            snprintf(path, sizeof(path), "%s", argv[i] + 4);
    pthread_key_create(&thread_end, name_thread);
    qemu_plugin_register_vcpu_tb_trans_cb(id, translate);
    qemu_plugin_register_atexit_cb(id, print, NULL);
    return 0;
}
