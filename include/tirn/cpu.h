/*
 * CPUs and their owners: the CPU partitions of the node, texts that list CPUs and may name partitions, and the NUMA
 * nodes that a configuration file describes.
 *
 * A list of CPUs is a text of comma-separated items. Each item is a number or a range such as 4-7.
 */
#ifndef TIRN_CPU_H
#define TIRN_CPU_H

#include <sched.h>

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/*
 * CPU partitions. They are read once, by the first call that needs them, from /ZEK/conf/app_data/wtrc/product.ini
 * unless kesa_cpum_init was called with another file before.
 */

struct kesa_cpu_group {
  struct kesa_list_head link; /* among the groups, in the file's order */
  struct kesa_list_head partitions;
  char name[32];
};

struct kesa_cpu_partition {
  struct kesa_list_head link; /* among the partitions of its group, in the file's order */
  int32_t type;
  int32_t reserved; /* 0 */
  char name[32];
  char cpumask[256]; /* the list of CPUs as text */
};

/*
 * Reads the partitions from a file, or from the default file if `path` is NULL. If the default file is missing, a
 * script of the node makes it. Only the first call reads, whether it succeeds or not; later calls do nothing.
 * @returns 0; -1 from the call that finds no valid file: there are no partitions then, but later calls return 0.
 * @safety MT-Safe, AS-Unsafe lock heap
 */
TIRN_API int kesa_cpum_init(const char* path);

/*
 * Finds the first partition with these names.
 * @returns the partition, or NULL if there is none, for a NULL name, or if this call could not read the partitions.
 * @safety MT-Safe, AS-Unsafe lock heap
 */
TIRN_API struct kesa_cpu_partition* kesa_cpum_get_partition(const char* group, const char* partition);

/*
 * Sets the bits of a list of CPUs in a mask of 1024 bits in 16 words. No bit is cleared. A range is cut after CPU
 * 1023; if it begins above that, it is no valid item. A bad item does not end the list. An item may also be a
 * reference GROUP/PARTITION, which stands for the list of that partition; a group of * stands for every group. A
 * reference is valid even if no partition has its names. Each partition is read at most once in a call, however many
 * references name it. A reference is not valid in a list that 128 nested references lead to, or if there are more
 * than 256 partitions and no memory to note which ones were read.
 * @returns 0 if at least one item was valid; -1 if none was, or for a NULL text.
 * @safety MT-Safe race:mask, AS-Unsafe lock heap
 */
TIRN_API int kesa_cpum_parse_cpumask(const char* text, uint64_t* mask);

/*
 * Clears the first two CPUs of each partition with the name IOD_NORMAL whose list begins with a range of three or
 * more. CPU 1023 is never cleared.
 * @returns 0, or -1 if this call could not read the partitions.
 * @safety MT-Safe race:mask, AS-Unsafe lock heap
 */
TIRN_API int kesa_cpum_clear_cpumask_of_iod_poll(uint64_t* mask);

/*
 * Prints the partitions, one on each text line. Before the partitions are read, it prints only a note that says so.
 * @safety MT-Safe, AS-Safe (as the print function)
 */
TIRN_API void kesa_cpum_dbg_show(kesa_print_fn print);

/*
 * Asks the kernel side whether an idle CPU may use its C-states, and stores the answer in `*value`.
 * @returns the result of the private call, or -1 for NULL.
 * @safety MT-Safe, AS-Unsafe heap (for NULL)
 */
TIRN_API int kesa_get_idle_no_cstates(unsigned cpu, unsigned* value);

/*
 * Sets at the kernel side whether an idle CPU may use its C-states.
 * @returns the result of the private call; -1 is logged.
 * @safety MT-Safe, AS-Unsafe heap (where it fails)
 */
TIRN_API int kesa_set_idle_no_cstates(unsigned cpu, unsigned value);

/*
 * Fills `info`, a record of the kernel side about the tasks of a CPU.
 * @returns 0, or -1 if the private call fails or for NULL.
 * @safety MT-Safe, AS-Unsafe heap (for NULL)
 */
TIRN_API int kesa_get_cpu_task_info(unsigned cpu, void* info);

/*
 * NUMA nodes as a configuration file describes them; the hardware is not asked. The file must be read at start, since
 * the getters take no lock. Before that there are no nodes.
 */

struct kesa_numa_node {
  struct kesa_list_head link; /* among the nodes, in the file's order */
  int32_t numa_id;
  int32_t proc_member; /* 1: this process may use the node */
  char cores[256];     /* its list of CPUs as text */
};

/* The paths of two files. Each key may be in either of them. */
struct kesa_numa_cfg {
  char numa_info[256];
  char node_numa[256];
};

/*
 * Reads the nodes from a file, or from /opt/brinemark/QuillonNumaConfiguration.ini if `path` is NULL. Does nothing if
 * an earlier call succeeded. A call after a failed one reads again, and adds to the nodes that were read before the
 * error.
 * @returns 0, also if the file does not exist; -1 if its content is not valid.
 * @safety MT-Safe, AS-Unsafe lock heap
 */
TIRN_API int kesa_numam_init(const char* path);

/*
 * Does what kesa_numam_init does, with two files. A successful call of either function counts for both.
 * @returns 0; -1 if a file cannot be read or the content is not valid, or for a record that kesa_numam_cfg_check
 * refuses.
 * @safety MT-Safe race:record, AS-Unsafe lock heap
 */
TIRN_API int kesa_numam_module_init(const struct kesa_numa_cfg* record);

/*
 * Reads the status, which the file or kesa_numam_status_set has set.
 * @returns 1 if NUMA handling is on, 0 if not.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API unsigned kesa_numam_status_get(void);

/*
 * Stores a status of 0 or 1.
 * @returns 0, or -1 for any other status.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int kesa_numam_status_set(unsigned status);

/*
 * Reads how many nodes the file states.
 * @returns the number, or 0 if none was read. After a failed read it may be too high or negative.
 * @safety MT-Safe, AS-Safe
 */
TIRN_API int kesa_numam_num_get(void);

/*
 * Sets bit (id modulo 64) of `*mask` for each node that this process may use. No bit is cleared.
 * @returns 0, or -1 for NULL.
 * @safety MT-Safe race:nodes, AS-Unsafe heap
 */
TIRN_API int kesa_numam_proc_numamask_get(uint64_t* mask);

/*
 * Stores the CPUs of a node in a set. The set is empty for an unknown node.
 * @returns 0, also for an unknown node, which is logged; -1 for NULL, or if the node's list has an error: the items
 * before it are then set.
 * @safety MT-Safe race:nodes, AS-Unsafe heap
 */
TIRN_API int kesa_numam_cpuset_get(int numa_id, cpu_set_t* set);

/*
 * Stores the CPUs of a node in a mask, after the first 256 bits of the mask were cleared. The mask must be large
 * enough for every number in the node's list.
 * @returns a result as kesa_numam_cpuset_get does.
 * @safety MT-Safe race:nodes, AS-Unsafe heap
 */
TIRN_API int kesa_numam_cpumask_get(int numa_id, uint64_t* mask);

/*
 * Adds a list of CPUs to a set. Numbers from 1024 on are ignored.
 * @returns 0, also for a NULL text; -1 at the first item that is not valid: the items before it are set.
 * @safety MT-Safe race:set, AS-Unsafe heap
 */
TIRN_API int kesa_numam_parse_cpuset(const char* text, cpu_set_t* set);

/*
 * Adds one item of a list of CPUs to a set. Numbers from 1024 on are ignored.
 * @returns 0, or -1 if the item is not valid.
 * @safety MT-Safe race:set, AS-Unsafe heap
 */
TIRN_API int kesa_numam_parse_cpuset_as_list(const char* item, cpu_set_t* set);

/*
 * Adds a list of CPUs to a mask. Each number is set, however large, so the mask must be large enough for it.
 * @returns 0, also for a NULL text; -1 at the first item that is not valid: the items before it are set.
 * @safety MT-Safe race:mask, AS-Unsafe heap
 */
TIRN_API int kesa_numam_parse_cpumask(const char* text, uint64_t* mask);

/*
 * Adds one item of a list of CPUs to a mask, which must be large enough.
 * @returns 0, or -1 if the item is not valid.
 * @safety MT-Safe race:mask, AS-Unsafe heap
 */
TIRN_API int kesa_numam_parse_cpumask_as_list(const char* item, uint64_t* mask);

/*
 * Stores in `*start` and `*end` the ends of the range that a text begins with. A single number is both ends.
 * @returns 0, or -1 if the text begins with no number or its range is reversed.
 * @safety MT-Safe, AS-Unsafe heap
 */
TIRN_API int kesa_numam_parse_cpustr(const char* item, unsigned* start, unsigned* end);

/* The steps of reading the nodes. They use the configuration files that are registered (tirn/cfg.h). */

/*
 * Reads an item as a decimal number.
 * @returns the number, 0 if the value does not begin with one, or -1 if the item cannot be read.
 * @safety MT-Safe, AS-Unsafe lock heap
 */
TIRN_API int kesa_numam_parse_digit_item(const char* section, const char* item);

/*
 * Reads the list of CPUs of one node, from the item numa_<id> of the section NUMA_PARTITION, and adds the node.
 * @returns 0, or -1 if the item cannot be read or there is no memory.
 * @safety MT-Unsafe race:nodes, AS-Unsafe lock heap
 */
TIRN_API int kesa_numam_parse_per_numa(int numa_id);

/*
 * Reads the number of CPUs and the number of nodes, and adds all nodes.
 * @returns 0; -1 if a number cannot be read or is below 1, or at the first node that cannot be added: the nodes
 * before it stay.
 * @safety MT-Unsafe race:nodes, AS-Unsafe lock heap
 */
TIRN_API int kesa_numam_parse_numa_partition(void);

/*
 * Reads whether NUMA handling is on, and sets the status. Any value that begins with "tru" means on, any that begins
 * with "fals" means off.
 * @returns 0, or -1 if the item cannot be read or has another value.
 * @safety MT-Safe, AS-Unsafe lock heap
 */
TIRN_API int kesa_numam_parse_proc_numa_switch(void);

/*
 * Marks the nodes with an id as usable by this process.
 * @safety MT-Unsafe race:nodes, AS-Safe
 */
TIRN_API void kesa_numam_parse_proc_numa_set(int numa_id);

/*
 * Marks the nodes that the file lists as usable by this process.
 * @returns 0, also if the file lists none; -1 at the first id that is negative or not below the number of nodes: the
 * nodes before it are marked.
 * @safety MT-Unsafe race:nodes, AS-Unsafe lock heap
 */
TIRN_API int kesa_numam_parse_proc_numa_info(void);

/*
 * Calls kesa_numam_parse_proc_numa_switch and then kesa_numam_parse_proc_numa_info.
 * @returns 0, or -1 if one of them fails.
 * @safety MT-Unsafe race:nodes, AS-Unsafe lock heap
 */
TIRN_API int kesa_numam_parse_proc_partition(void);

/*
 * Calls kesa_numam_parse_numa_partition and then kesa_numam_parse_proc_partition.
 * @returns 0, or -1 if one of them fails.
 * @safety MT-Unsafe race:nodes, AS-Unsafe lock heap
 */
TIRN_API int kesa_numam_cfg_parse(void);

/*
 * Reads the nodes as kesa_numam_init does, even if they were read before. A file whose content is not valid stays
 * registered.
 * @returns a result as kesa_numam_init does.
 * @safety MT-Unsafe race:nodes, AS-Unsafe lock heap
 */
TIRN_API int kesa_numam_init_inner(const char* path);

/*
 * Checks that both paths of a record have 1 to 255 characters.
 * @returns 0 if they have, or -1 if not or for NULL.
 * @safety MT-Safe race:record, AS-Unsafe heap
 */
TIRN_API int kesa_numam_cfg_check(const struct kesa_numa_cfg* record);

/*
 * Reads the nodes as kesa_numam_module_init does, even if they were read before.
 * @returns a result as kesa_numam_module_init does.
 * @safety MT-Unsafe race:nodes race:record, AS-Unsafe lock heap
 */
TIRN_API int kesa_numam_cfg_init(const struct kesa_numa_cfg* record);

TIRN_EXTERN_C_END

#endif
