/*
 * Which CPUs are whose: the node's CPU partitions, the texts that list CPUs and may name partitions, and the NUMA nodes
 * that a configuration file tells of.
 *
 * A list of CPUs has items with commas between: a number, or a range such as 4-7.
 */
#ifndef TIRN_CPU_H
#define TIRN_CPU_H

#include <sched.h>

#include "tirn/base.h"

TIRN_EXTERN_C_BEGIN

/* CPU partitions. They are read once, from /ZEK/conf/app_data/wtrc/product.ini unless kesa_cpum_init named another file
 * first. */

struct kesa_cpu_group {
  struct kesa_list_head link; /* among the groups, in the file's order */
  struct kesa_list_head partitions;
  char name[32];
};

struct kesa_cpu_partition {
  struct kesa_list_head link; /* among its group's, in the file's order */
  int32_t type;
  int32_t reserved; /* 0 */
  char name[32];
  char cpumask[256]; /* the list of CPUs, as a text */
};

/*
 * Reads the partitions, once; NULL: from the default file, which a script of the node makes where it is missing. 0; -1
 * from the call that finds no good file: later calls give 0, and there are no partitions.
 * @safety MT-Safe, AS-Unsafe lock heap
 */
TIRN_API int kesa_cpum_init(const char* path);

/* The first partition of these names, or NULL.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API struct kesa_cpu_partition* kesa_cpum_get_partition(const char* group, const char* partition);

/*
 * Sets the bits of a list of CPUs. An item may also be GROUP/PARTITION, which stands for that partition's list; a group
 * of * stands for every group. A range is cut at CPU 1023. `mask` holds 1024 bits in 16 words; those that are set stay.
 * 0 if at least one item was good, as a reference is even where nothing has its names; -1 if none was, and for NULL. A
 * partition is read once in a call, however often and by whichever others it is named. A reference is no good item where
 * it lies 128 lists deep, or where there are more than 256 partitions and no memory to note them.
 * @safety MT-Safe race:mask, AS-Unsafe lock heap
 */
TIRN_API int kesa_cpum_parse_cpumask(const char* text, uint64_t* mask);

/* Clears the first two CPUs of each partition called IOD_NORMAL whose list begins with a range of three or more. 0; -1
 * where the partitions cannot be read.
 * @safety MT-Safe race:mask, AS-Unsafe lock heap */
TIRN_API int kesa_cpum_clear_cpumask_of_iod_poll(uint64_t* mask);

/* Prints the partitions, one to a line.
 * @safety MT-Safe, AS-Safe (as the print function) */
TIRN_API void kesa_cpum_dbg_show(kesa_print_fn print);

/* Asks the kernel side whether a CPU may use its C-states when idle. The call's result; -1 for NULL.
 * @safety MT-Safe, AS-Unsafe heap (for NULL) */
TIRN_API int kesa_get_idle_no_cstates(unsigned cpu, unsigned* value);

/* Tells the kernel side. The call's result.
 * @safety MT-Safe, AS-Unsafe heap (where it fails) */
TIRN_API int kesa_set_idle_no_cstates(unsigned cpu, unsigned value);

/* Fills a record of the kernel side about a CPU's tasks. 0, or -1.
 * @safety MT-Safe, AS-Unsafe heap (for NULL) */
TIRN_API int kesa_get_cpu_task_info(unsigned cpu, void* info);

/* NUMA nodes, as a configuration file tells of them; the hardware is not asked. Getters answer as for no nodes until one
 * was read, which is to be done at start: they take no lock. */

struct kesa_numa_node {
  struct kesa_list_head link; /* among the nodes, in the file's order */
  int32_t numa_id;
  int32_t proc_member; /* 1: this process may use the node */
  char cores[256];     /* its list of CPUs, as a text */
};

/* Two files, among which the keys may be divided in any way. */
struct kesa_numa_cfg {
  char numa_info[256];
  char node_numa[256];
};

/* Reads the nodes from a file, once; NULL: /opt/brinemark/QuillonNumaConfiguration.ini. 0, also where the file is not
 * there; -1 for a file that is not good: a later call tries again, and adds to what was read before the fault.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int kesa_numam_init(const char* path);

/* kesa_numam_init from two files; -1 where one cannot be read. A load by either function counts for both.
 * @safety MT-Safe race:record, AS-Unsafe lock heap */
TIRN_API int kesa_numam_module_init(const struct kesa_numa_cfg* record);

/* 1 where the file turned NUMA handling on, else 0.
 * @safety MT-Safe, AS-Safe */
TIRN_API unsigned kesa_numam_status_get(void);

/* Stores a status of 0 or 1; 0, or -1 for another one.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_numam_status_set(unsigned status);

/* The number of nodes.
 * @safety MT-Safe, AS-Safe */
TIRN_API int kesa_numam_num_get(void);

/* Sets the bits (modulo 64) of the nodes that this process may use; others stay. 0; -1 for NULL.
 * @safety MT-Safe race:nodes, AS-Unsafe heap */
TIRN_API int kesa_numam_proc_numamask_get(uint64_t* mask);

/* The CPUs of a node. 0, with an empty set for a node that there is not; -1 for NULL, and for a list with a fault:
 * the items in front of it are set.
 * @safety MT-Safe race:nodes, AS-Unsafe heap */
TIRN_API int kesa_numam_cpuset_get(int numa_id, cpu_set_t* set);

/* The same as a mask, of which the first 256 bits are cleared before. It must hold every number of the node's list.
 * @safety MT-Safe race:nodes, AS-Unsafe heap */
TIRN_API int kesa_numam_cpumask_get(int numa_id, uint64_t* mask);

/* Adds a list of CPUs to a set; numbers from 1024 on are passed over. 0, also for a NULL text; -1 at the first item
 * that is not good: the items in front of it are set.
 * @safety MT-Safe race:set, AS-Unsafe heap */
TIRN_API int kesa_numam_parse_cpuset(const char* text, cpu_set_t* set);

/* The same for one item.
 * @safety MT-Safe race:set, AS-Unsafe heap */
TIRN_API int kesa_numam_parse_cpuset_as_list(const char* item, cpu_set_t* set);

/* kesa_numam_parse_cpuset into a mask. Each number of the list is set, however large: the mask must hold it.
 * @safety MT-Safe race:mask, AS-Unsafe heap */
TIRN_API int kesa_numam_parse_cpumask(const char* text, uint64_t* mask);

/* The same for one item.
 * @safety MT-Safe race:mask, AS-Unsafe heap */
TIRN_API int kesa_numam_parse_cpumask_as_list(const char* item, uint64_t* mask);

/* The ends of the range that a text begins with, both the same for a number. 0, or -1.
 * @safety MT-Safe, AS-Unsafe heap */
TIRN_API int kesa_numam_parse_cpustr(const char* item, unsigned* start, unsigned* end);

/* The steps of a load, over the configuration files that are registered (tirn/cfg.h). */

/* An item as a decimal number; -1 where it cannot be read.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int kesa_numam_parse_digit_item(const char* section, const char* item);

/* Adds one node. 0, or -1.
 * @safety MT-Unsafe race:nodes, AS-Unsafe lock heap */
TIRN_API int kesa_numam_parse_per_numa(int numa_id);

/* Reads both numbers and adds all nodes. 0, or -1.
 * @safety MT-Unsafe race:nodes, AS-Unsafe lock heap */
TIRN_API int kesa_numam_parse_numa_partition(void);

/* Reads whether NUMA handling is on. 0, or -1.
 * @safety MT-Safe, AS-Unsafe lock heap */
TIRN_API int kesa_numam_parse_proc_numa_switch(void);

/* Marks the nodes of an id as this process's.
 * @safety MT-Unsafe race:nodes, AS-Safe */
TIRN_API void kesa_numam_parse_proc_numa_set(int numa_id);

/* Marks the nodes that the file names. 0, also where it names none; -1 at the first number that is no node's.
 * @safety MT-Unsafe race:nodes, AS-Unsafe lock heap */
TIRN_API int kesa_numam_parse_proc_numa_info(void);

/* kesa_numam_parse_proc_numa_switch and kesa_numam_parse_proc_numa_info. 0, or -1.
 * @safety MT-Unsafe race:nodes, AS-Unsafe lock heap */
TIRN_API int kesa_numam_parse_proc_partition(void);

/* All of it. 0, or -1.
 * @safety MT-Unsafe race:nodes, AS-Unsafe lock heap */
TIRN_API int kesa_numam_cfg_parse(void);

/* What kesa_numam_init does once.
 * @safety MT-Unsafe race:nodes, AS-Unsafe lock heap */
TIRN_API int kesa_numam_init_inner(const char* path);

/* 0 where both paths have 1 to 255 characters, else -1.
 * @safety MT-Safe race:record, AS-Unsafe heap */
TIRN_API int kesa_numam_cfg_check(const struct kesa_numa_cfg* record);

/* What kesa_numam_module_init does once.
 * @safety MT-Unsafe race:nodes race:record, AS-Unsafe lock heap */
TIRN_API int kesa_numam_cfg_init(const struct kesa_numa_cfg* record);

TIRN_EXTERN_C_END

#endif
