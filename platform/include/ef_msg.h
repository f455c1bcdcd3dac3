/* EF framework message channel between the forwarding process's modules and
 * their control processes. */
#ifndef EF_MSG_H
#define EF_MSG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define EF_MSG_MODULE_VXLAN 31u
#define EF_MSG_EAGAIN (-11)

/* The framework's own 20 bytes in front of every channel message. */
typedef struct ef_msg_fw_hdr {
    uint32_t magic;
    uint32_t seq;
    uint32_t src;
    uint32_t dst;
    uint32_t flags;
} ef_msg_fw_hdr_t;

/* Channel message: framework header, module id at byte 20, payload length at
 * byte 24, payload from byte 28. */
typedef struct ef_msg {
    ef_msg_fw_hdr_t fw;
    uint32_t module_id;
    uint32_t len;
    uint8_t data[];
} ef_msg_t;

#define EF_MSG_HDR_LEN 28u

typedef int (*ef_msg_recv_fn)(void *msg);
typedef int (*ef_msg_other_fn)(void *arg);
typedef int (*ef_msg_connect_fn)(void *channel, int8_t connected);

/* The callbacks a module hands to ef_msg_register, in this order. */
typedef struct ef_msg_callbacks {
    ef_msg_recv_fn recv;
    ef_msg_other_fn reserved;
    ef_msg_connect_fn connect;
} ef_msg_callbacks_t;

/* Registers a module's callbacks; the record is copied. 0 on success. */
int ef_msg_register(uint32_t module, const ef_msg_callbacks_t *cbs);

/* Removes a module's registration. 0 on success. */
int ef_msg_unregister(uint32_t module);

/* Sends one channel message to the module's control process. The caller keeps
 * ownership of msg. 0 on success, EF_MSG_EAGAIN when the channel is busy,
 * another negative value on failure. */
int ef_msg_send(void *msg);

#ifdef __cplusplus
}
#endif

#endif
