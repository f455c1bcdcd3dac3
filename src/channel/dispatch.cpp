// Inbound dispatch: drains the queue on the module task, checks each
// message's framing and version, and hands every TLV to its handler.
#include <algorithm>
#include <cstring>

#include "channel_private.h"
#include "dispatch_table.h"
#include "ef_mem.h"

namespace {

// A whole message plus room for the longest value layout behind its end.
constexpr std::size_t kImageLen = VXLAN_EF_MSG_MAX_LEN + 1024;

void free_node(vxlan_ef_msg_node_t *node)
{
    ef_free(VXLAN_EF_EF_MEM_TYPE, node->data);
    ef_free(VXLAN_EF_EF_MEM_TYPE, node);
}

// Framing check: true when the message may be processed.
bool vxlan_ef_msg_deal(const uint8_t *msg)
{
    const uint8_t ver = msg[0];
    const uint16_t len = vxlan_ef::msg_len(msg);
    const uint8_t tlv_num = msg[3];
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] Msg info, ver: %02x, len: %d, tlv_num: %d\n", ver,
                   len, tlv_num);
    const bool framed = len > VXLAN_EF_MSG_HDR_LEN && len <= VXLAN_EF_MSG_MAX_LEN &&
                        len - VXLAN_EF_MSG_HDR_LEN >= VXLAN_EF_TLV_HDR_LEN &&
                        vxlan_ef::tlv_area_well_formed(msg + VXLAN_EF_MSG_HDR_LEN,
                                                       len - VXLAN_EF_MSG_HDR_LEN, tlv_num);
    if (!framed) {
        VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] msg check error, ver: %02x, len: %d, tlv_num: %d\n",
                     ver, len, tlv_num);
        return false;
    }
    if (ver > VXLAN_EF_MSG_VER) {
        VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] Msg version is incompatible, current ver: 0x%02x, "
                     "msg ver: 0x%02x\n",
                     VXLAN_EF_MSG_VER, ver);
        return false;
    }
    return true;
}

void vxlan_ef_tlv_parse(vxlan_ef_vsd_t *vsd, const uint8_t *msg)
{
    const uint8_t *area = msg + VXLAN_EF_MSG_HDR_LEN;
    const uint32_t area_len = vxlan_ef::msg_len(msg) - VXLAN_EF_MSG_HDR_LEN;
    for (vxlan_ef::TlvCursor walk{area, area_len}; !walk.done();) {
        const vxlan_ef::Tlv tlv = walk.take();
        VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] recv tlv, t: %s, l: %d\n",
                       vxlan_ef_tlv_name(tlv.type), tlv.length);
        if (vxlan_ef::TlvHandler handler = vxlan_ef::tlv_handler(tlv.type)) {
            handler(static_cast<uint32_t>(vsd->id), tlv.value);
        } else {
            VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] Unknown or not care tlv, t: %d, l: %d\n",
                         tlv.type, tlv.length);
        }
    }
}

void dispatch_node(vxlan_ef_vsd_t *vsd, const vxlan_ef_msg_node_t *node)
{
    const char *func = "vxlan_ef_msg_task";
    VXLAN_EF_LOG_AS(VXLAN_EF_DBG_EVENT, vsd_log_->id, func,
                    "VXLAN-EF-EVENT: [vsd %d %s] Dispatch message, length: %d.\n", node->length);
    if (node->length < VXLAN_EF_MSG_HDR_LEN) {
        VXLAN_EF_LOG_AS(VXLAN_EF_DBG_ERR, vsd_log_->id, func,
                        "VXLAN-EF-ERR: [vsd %d %s] Dispatch message length error, len: %d\n",
                        node->length);
        return;
    }
    // From here on the header's own len governs and handlers trust each value
    // to be as long as its layout. The message is read from a zero-padded
    // image so that a short copy or a short last value never reads outside it.
    uint8_t image[kImageLen] = {};
    std::memcpy(image, node->data, std::min<uint32_t>(node->length, sizeof image));
    if (!vxlan_ef_msg_deal(image))
        return;
    vxlan_ef_tlv_parse(vsd, image);
}

}  // namespace

int vxlan_ef_msg_task(void)
{
    while (vxlan_ef_msg_node_t *node = vxlan_ef_msg_dequeue(&g_vxlan_ef_msg_queue)) {
        if (vxlan_ef_vsd_t *vsd = g_vxlan_vsd)
            dispatch_node(vsd, node);
        free_node(node);
    }
    return 0;
}
