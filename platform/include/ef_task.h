/* EF framework tasks: a task runs its body once each time its timeout fires. */
#ifndef EF_TASK_H
#define EF_TASK_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int (*ef_task_fn)(void *arg);

/* Creates a task that will run fn(arg) when armed; NULL on failure. */
void *ef_task_create(ef_task_fn fn, void *arg, const char *name);

/* Deletes a task; a task may delete itself while its body runs. 0 or -1. */
int ef_task_delete(void *task);

/* Arms the task to run once after timeout units of the platform's clock
 * (milliseconds here). mode 1 is a one-shot timeout. 0 or -1. */
int ef_task_active_timeout(void *task, int mode, uint32_t timeout);

#ifdef __cplusplus
}
#endif

#endif
