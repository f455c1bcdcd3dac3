/* lsm, the interface manager: interface control blocks, their events and
 * walks. */
#ifndef LSM_H
#define LSM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define LSM_IF_STACK_RAW 0u
#define LSM_IF_STACK_BRIDGE 5u
#define LSM_IF_STACK_TCPIP 6u

#define LSM_IF_TYPE_OVERLAY_TUNNEL 45u
#define LSM_IF_TYPE_OVERLAY_ROUTER 46u

#define LSM_IF_EVENT_CREATE 0u
#define LSM_IF_EVENT_DESTROY 1u

#define LSM_IF_NAME_LEN 64

/* Interface control block; index and type are the first two fields. */
typedef struct lsm_intfcb {
    uint32_t ifindex;
    uint32_t type;
    uint8_t stack;
    uint8_t link_up;
    uint8_t mac[6];
    char name[LSM_IF_NAME_LEN];
    char sname[LSM_IF_NAME_LEN];
    uint32_t mtu;
    uint8_t subif_mode;
    uint32_t parent_ifx;
    int32_t vrf_id;
    uint16_t status;       /* LSM_IF_STATUS_* */
    uint32_t subif_key_ifx; /* index the sub-interface table keys this port's
                               sub-interfaces under; 0 = its own index */
} lsm_intfcb_t;

/* Bits of lsm_intfcb.status. */
#define LSM_IF_STATUS_AP_MEMBER 0x2u /* member of an aggregate port */

/* Message of an interface creation or destruction event. */
typedef struct lsm_if_event_msg {
    uint32_t ifindex;
    char name[LSM_IF_NAME_LEN];
} lsm_if_event_msg_t;

typedef int (*lsm_msg_handler_fn)(uint32_t event, void *msg);
typedef int (*lsm_walk_fn)(lsm_intfcb_t *intf);

/* The control block of an interface, or NULL. */
lsm_intfcb_t *lsm_get_intfcb(uint32_t ifindex);

/* Copies the interface's name (or short name) into buf; 0, or -1 when there is
 * no such interface (buf then holds an empty string). */
int lsm_if_get_name(uint32_t ifindex, char *buf, int len);
int lsm_if_get_sname(uint32_t ifindex, char *buf, int len);

/* Subscribes a handler to the creation and destruction events of one protocol
 * stack; 0 on success. */
int lsm_reg_msg_handler_ex(uint32_t stack, lsm_msg_handler_fn handler);
int lsm_unreg_msg_handler_ex(uint32_t stack, lsm_msg_handler_fn handler);

/* Calls fn with every existing interface. Returns 0. */
int lsm_walk_through_ex(lsm_walk_fn fn, uint32_t arg1, uint32_t arg2);

#ifdef __cplusplus
}
#endif

#endif
