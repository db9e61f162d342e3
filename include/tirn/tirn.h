/* Includes all public C headers of the library. */
#ifndef TIRN_TIRN_H
#define TIRN_TIRN_H

#include "tirn/affinity.h"
#include "tirn/avl.h"
#include "tirn/base.h"
#include "tirn/bitops.h"
#include "tirn/cfg.h"
#include "tirn/cpu.h"
#include "tirn/cpumask.h"
#include "tirn/crc32.h"
#include "tirn/fileops.h"
#include "tirn/fs.h"
#include "tirn/hash.h"
#include "tirn/init.h"
#include "tirn/jiffies.h"
#include "tirn/lock.h"
#include "tirn/mem.h"
#include "tirn/percpu_posix.h"
#include "tirn/process.h"
#include "tirn/queue.h"
#include "tirn/rbtree.h"
#include "tirn/sched.h"
#include "tirn/semaphore.h"
#include "tirn/shm.h"
#include "tirn/smp.h"
#include "tirn/str.h"
#include "tirn/syscall.h"
#include "tirn/thread.h"
#include "tirn/thread_strategy.h"
#include "tirn/wait.h"

#endif
