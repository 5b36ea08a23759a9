/* SPDX-License-Identifier: MIT */
/*
 * forbid_namespaces COMMAND [ARGUMENT...]: runs the command as a container's
 * default seccomp filter has it, without the right to make namespaces or mounts.
 */
#define _GNU_SOURCE /* CLONE_NEWNS and its like; NOLINT(readability-identifier-naming): the C library's name */
#include <errno.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <stddef.h>
#include <stdio.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#define NEW_NAMESPACES \
    (CLONE_NEWNS | CLONE_NEWCGROUP | CLONE_NEWUTS | CLONE_NEWIPC | CLONE_NEWUSER | CLONE_NEWPID | CLONE_NEWNET)
#define LOAD(field) BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, field))
#define RETURN(value) BPF_STMT(BPF_RET | BPF_K, value)
/* What follows at once holds for this system call alone. */
#define FOR(call) BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1)
#define FORBID(call) FOR(call), RETURN(SECCOMP_RET_ERRNO | EPERM)

int main(int argc, char** argv)
{
    if (argc < 2)
        return 2;
    struct sock_filter rules[] = {
        LOAD(nr),
        FORBID(__NR_unshare),
        FORBID(__NR_setns),
        FORBID(__NR_mount),
        FORBID(__NR_umount2),
        /* Its flags are in memory, out of a filter's sight: the C library falls back on clone. */
        FOR(__NR_clone3),
        RETURN(SECCOMP_RET_ERRNO | ENOSYS),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_clone, 0, 3),
        LOAD(args[0]), /* the low half on the little-endian machines that this is for */
        BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, (unsigned)NEW_NAMESPACES, 0, 1),
        RETURN(SECCOMP_RET_ERRNO | EPERM),
        RETURN(SECCOMP_RET_ALLOW),
    };
    const struct sock_fprog program = {sizeof(rules) / sizeof(rules[0]), rules};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
        perror("no seccomp filter");
        return 77;
    }
    execvp(argv[1], argv + 1);
    perror(argv[1]);
    return 127;
}
