/*
 * A plugin for qemu-user 7.2 that counts the instructions a program executes between two marks, and
 * prints each count on a line of standard error. The counts are the same in every run, however busy
 * the machine is. A mark is a system call whose number stands for nothing: 0x7001 starts, 0x7002
 * stops.
 *
 * Debian 12 brings no header for plugins, so the functions in use are declared here.
 */
#include <inttypes.h>
#include <stdint.h>
#include <stdio.h>

typedef uint64_t plugin_id;
struct qemu_plugin_tb;
enum inline_operation { INLINE_ADD_U64 };
typedef void (*translation_callback)(plugin_id, struct qemu_plugin_tb*);
typedef void (*syscall_callback)(plugin_id, unsigned int, int64_t, uint64_t, uint64_t, uint64_t,
                                 uint64_t, uint64_t, uint64_t, uint64_t, uint64_t);

void qemu_plugin_register_vcpu_tb_trans_cb(plugin_id, translation_callback);
void qemu_plugin_register_vcpu_syscall_cb(plugin_id, syscall_callback);
void qemu_plugin_register_vcpu_tb_exec_inline(struct qemu_plugin_tb*, enum inline_operation, void*,
                                              uint64_t);
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb*);

extern int qemu_plugin_version;
int qemu_plugin_version = 1;
int qemu_plugin_install(plugin_id id, const void* info, int argc, char** argv);

static uint64_t executed = 0;
static uint64_t executed_at_start = 0;

static void count_block(plugin_id id, struct qemu_plugin_tb* block)
{
    (void)id;
    qemu_plugin_register_vcpu_tb_exec_inline(block, INLINE_ADD_U64, &executed,
                                             qemu_plugin_tb_n_insns(block));
}

static void look_at_syscall(plugin_id id, unsigned int cpu, int64_t number, uint64_t a1,
                            uint64_t a2, uint64_t a3, uint64_t a4, uint64_t a5, uint64_t a6,
                            uint64_t a7, uint64_t a8)
{
    (void)id, (void)cpu, (void)a1, (void)a2, (void)a3, (void)a4, (void)a5, (void)a6, (void)a7,
        (void)a8;
    if (number == 0x7001) {
        executed_at_start = executed;
    } else if (number == 0x7002) {
        fprintf(stderr, "%" PRIu64 "\n", executed - executed_at_start);
    }
}

int qemu_plugin_install(plugin_id id, const void* info, int argc, char** argv)
{
    (void)info, (void)argc, (void)argv;
    qemu_plugin_register_vcpu_tb_trans_cb(id, count_block);
    qemu_plugin_register_vcpu_syscall_cb(id, look_at_syscall);
    return 0;
}
