/* Application database (MOM) client: connection of a module to the app-db and
 * subscription to and scan of its tables of protobuf-c messages. */
#ifndef EF_MOM_H
#define EF_MOM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Notification commands the module cares about. */
#define TQ_MOM_CMD_REMOVE 3u
#define TQ_MOM_CMD_SET 4u
#define TQ_MOM_CMD_UPDATE 6u
#define TQ_MOM_CMD_REMOVE_ALL 27u
#define TQ_MOM_CMD_SUB_REFUSED 28u
#define TQ_MOM_CMD_SUB_ACCEPTED 29u

/* The connection callbacks a module registers, in this order. */
typedef struct ef_mom_reg {
    int (*connected)(void);
    int (*disconnected)(int reason);
    int (*reconnected)(void);
} ef_mom_reg_t;

/* A notification handed to subscription and scan callbacks. res points to an
 * array of unpacked messages (ProtobufCMessage pointers), res_count long. */
typedef struct tq_mom_notify {
    uint32_t cmd;
    void **res;
    uint32_t res_count;
    uint8_t end;
    uint32_t error;
} tq_mom_notify_t;

/* Request record: the table's message descriptor first, the rest zero. */
typedef struct tq_mom_req {
    const void *descriptor;
    uint32_t flags;
    void *key;
    uint32_t key_len;
} tq_mom_req_t;

typedef int (*tq_mom_cb)(void *ctx, tq_mom_notify_t *msg);

/* The process's app-db client handle, or NULL. */
void *efmp_get_mom_client(void);

int ef_mom_register(uint32_t module, ef_mom_reg_t *callbacks, uint32_t db);
int ef_mom_unregister(uint32_t module, uint32_t db);

int tq_mom_subscribe(void *client, uint32_t db, tq_mom_req_t *req, uint32_t flags,
                     tq_mom_cb cb, void *ctx);
int tq_mom_scan(void *client, uint32_t db, tq_mom_req_t *req, uint32_t flags,
                tq_mom_cb cb, void *ctx);

#ifdef __cplusplus
}
#endif

#endif
