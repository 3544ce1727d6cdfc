// A plugin for qemu-user that counts how often each instruction of a program is executed and writes
// "address count" lines to the file named by its argument `out`:
//   qemu-arm -plugin count_instructions.so,out=counts.txt program
#include <inttypes.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

// What is used of qemu's plugin interface, version 1; Debian packages no header of it.
typedef uint64_t qemu_plugin_id_t;
struct qemu_plugin_tb;
struct qemu_plugin_insn;
enum qemu_plugin_op { QEMU_PLUGIN_INLINE_ADD_U64 };
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb* tb);
struct qemu_plugin_insn* qemu_plugin_tb_get_insn(const struct qemu_plugin_tb* tb, size_t i);
uint64_t qemu_plugin_insn_vaddr(const struct qemu_plugin_insn* insn);
void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t id,
                                           void (*callback)(qemu_plugin_id_t, struct qemu_plugin_tb*));
void qemu_plugin_register_vcpu_insn_exec_inline(struct qemu_plugin_insn* insn, enum qemu_plugin_op op,
                                                void* counter, uint64_t step);
void qemu_plugin_register_atexit_cb(qemu_plugin_id_t id, void (*callback)(qemu_plugin_id_t, void*),
                                    void* data);

#define EXPORT __attribute__((visibility("default")))
EXPORT int qemu_plugin_version = 1;

// One counter an address, found by hashing; an address is translated again wherever a block starts anew.
struct Counter {
    uint64_t address, count;
};
enum { kSlots = 1 << 20 };
static struct Counter counters[kSlots];
static const char* out_path;

static struct Counter* counter_of(uint64_t address) {
    size_t slot = address * UINT64_C(0x9E3779B97F4A7C15) >> 44;
    for (size_t tries = 0; tries < kSlots; ++tries, slot = (slot + 1) % kSlots) {
        if (counters[slot].address == address || counters[slot].address == 0) {
            counters[slot].address = address;
            return &counters[slot];
        }
    }
    fputs("count_instructions: more addresses than slots\n", stderr);
    abort();
}

static void on_translation(qemu_plugin_id_t id, struct qemu_plugin_tb* tb) {
    (void)id;
    for (size_t i = 0; i < qemu_plugin_tb_n_insns(tb); ++i) {
        struct qemu_plugin_insn* const insn = qemu_plugin_tb_get_insn(tb, i);
        uint64_t* const count = &counter_of(qemu_plugin_insn_vaddr(insn))->count;
        qemu_plugin_register_vcpu_insn_exec_inline(insn, QEMU_PLUGIN_INLINE_ADD_U64, count, 1);
    }
}

static void on_exit_of_program(qemu_plugin_id_t id, void* data) {
    (void)id, (void)data;
    FILE* const out = fopen(out_path, "w");
    if (!out) {
        perror(out_path);
        abort();
    }
    for (size_t i = 0; i < kSlots; ++i)
        if (counters[i].count > 0)
            fprintf(out, "%" PRIx64 " %" PRIu64 "\n", counters[i].address, counters[i].count);
    fclose(out);
}

EXPORT int qemu_plugin_install(qemu_plugin_id_t id, const void* info, int argc, char** argv) {
    (void)info;
    if (argc != 1 || strncmp(argv[0], "out=", 4) != 0) {
        fputs("count_instructions: takes one argument, out=FILE\n", stderr);
        return 1;
    }
    out_path = strdup(argv[0] + 4);
    qemu_plugin_register_vcpu_tb_trans_cb(id, on_translation);
    qemu_plugin_register_atexit_cb(id, on_exit_of_program, NULL);
    return 0;
}
