/* Capability service: boolean feature capabilities addressed by path. */
#ifndef LIBTQ_CAP_H
#define LIBTQ_CAP_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define LIBTQ_CAP_MSG_VALUE_CHANGE 4u
#define LIBTQ_CAP_MSG_REREAD 29u

/* A capability change message handed to subscribers. */
typedef struct libtq_cap_msg {
    uint32_t type;
    int32_t error;
    char path[256];
    uint8_t value;
} libtq_cap_msg_t;

typedef int (*libtq_cap_cb)(void *ctx, libtq_cap_msg_t *msg);

/* Reads a capability; 0 on success with *value set. */
int libtq_cap_ce_get_g_cap_bool(void *client, const char *path, bool *value);

/* Subscribes to changes of one capability; 0 on success. */
int libtq_cap_ce_subscribe_g_cap_bool(void *client, const char *path, libtq_cap_cb cb,
                                      void *ctx);

/* Reads the path and value carried by a change message; path receives at most
 * path_len bytes and *length the path's length. 0 on success. */
int libtq_cap_ce_get_g_cap_bool_by_pmsg(libtq_cap_msg_t *msg, uint32_t path_len, char *path,
                                        bool *value, uint32_t *length);

#ifdef __cplusplus
}
#endif

#endif
