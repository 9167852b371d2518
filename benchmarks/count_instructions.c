// A plugin of qemu's user-mode emulator (version 1 of its interface): counts the instructions that
// the emulated program executes, all threads, and writes the number to a file when it ends.
//
//     qemu-arm -plugin ./libcount_instructions.so,out=FILE PROGRAM
//
// The emulator's header comes with no package, so what is used of it is declared here.
#include <inttypes.h>
#include <stdatomic.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

struct qemu_plugin_tb;
struct qemu_info;

enum { QEMU_PLUGIN_CB_NO_REGS = 0 };

void qemu_plugin_register_vcpu_tb_trans_cb(uint64_t id,
                                           void (*translated)(uint64_t id,
                                                              struct qemu_plugin_tb *block));
void qemu_plugin_register_vcpu_tb_exec_cb(struct qemu_plugin_tb *block,
                                          void (*executed)(unsigned cpu, void *data), int flags,
                                          void *data);
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb *block);
void qemu_plugin_register_atexit_cb(uint64_t id, void (*ended)(uint64_t id, void *data),
                                    void *data);

#define EXPORT __attribute__((visibility("default")))

EXPORT extern const int qemu_plugin_version;
EXPORT int qemu_plugin_install(uint64_t id, const struct qemu_info *info, int argc, char **argv);

const int qemu_plugin_version = 1;

static atomic_uint_least64_t count;
static char out[4096];

static void block_executed(unsigned cpu, void *instructions) {
    (void)cpu;
    atomic_fetch_add_explicit(&count, (uintptr_t)instructions, memory_order_relaxed);
}

// A block is left before its end only by an exception, which a system call at its end is not.
static void block_translated(uint64_t id, struct qemu_plugin_tb *block) {
    (void)id;
    qemu_plugin_register_vcpu_tb_exec_cb(block, block_executed, QEMU_PLUGIN_CB_NO_REGS,
                                         (void *)(uintptr_t)qemu_plugin_tb_n_insns(block));
}

static void program_ended(uint64_t id, void *data) {
    (void)id;
    (void)data;
    FILE *file = fopen(out, "we");
    if (file == NULL) {
        perror(out);
        return;
    }
    fprintf(file, "%" PRIuLEAST64 "\n", atomic_load(&count));
    fclose(file);
}

int qemu_plugin_install(uint64_t id, const struct qemu_info *info, int argc, char **argv) {
    (void)info;
    for (int i = 0; i < argc; ++i)
        if (strncmp(argv[i], "out=", 4) == 0)
            snprintf(out, sizeof out, "%s", argv[i] + 4);
    if (out[0] == '\0')
        return -1;
    qemu_plugin_register_vcpu_tb_trans_cb(id, block_translated);
    qemu_plugin_register_atexit_cb(id, program_ended, NULL);
    return 0;
}
