// The two send buffers towards the control process: TLVs collect in a
// buffer, and a buffer leaves as one channel message.
#include <cstring>

#include "channel_private.h"
#include "ef_mem.h"
#include "ef_msg.h"

namespace {

constexpr int kMaxSendRetries = 31;

// Appends the TLV to a batch buffer, flushing the buffer first when the TLV
// does not fit. -1 when that flush reported failure, else 0.
int batch_append(vxlan_ef_vsd_t *vsd, uint16_t type, uint16_t length, const uint8_t *value)
{
    uint8_t *buf = vsd->batch_buf.data;
    int rc = 0;
    if (!vxlan_ef::tlv_fits(buf, length)) {
        if (vxlan_ef_msg_write(vsd, buf, vxlan_ef::msg_len(buf)) != 0)
            rc = -1;
        if (!vxlan_ef::tlv_fits(buf, length))
            return rc;
    }
    vxlan_ef::tlv_append(buf, type, length, value);
    return rc;
}

}  // namespace

int vxlan_ef_msg_send(vxlan_ef_vsd_t *vsd, uint32_t type, uint16_t length, const uint8_t *value,
                      int mode)
{
    // Both buffers live in the instance record: without one there is nothing
    // to send from, and the caller learns that nothing left.
    if (g_vxlan_vsd == nullptr || vsd == nullptr)
        return -1;
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] send tlv to vxlan_ef, t: %s, l: %d, ctrl: %d\n",
                   vxlan_ef_tlv_name(type), length, mode);
    if (mode == vxlan_ef::kSendRealTime) {
        uint8_t *buf = vsd->rtime_buf.data;
        if (vxlan_ef::tlv_fits(buf, length))
            vxlan_ef::tlv_append(buf, static_cast<uint16_t>(type), length, value);
        return vxlan_ef_msg_write(vsd, buf, vxlan_ef::msg_len(buf));
    }
    if (mode != vxlan_ef::kSendBatch && mode != vxlan_ef::kSendBatchFlush)
        return -22;
    int rc = batch_append(vsd, static_cast<uint16_t>(type), length, value);
    if (mode == vxlan_ef::kSendBatchFlush) {
        uint8_t *buf = vsd->batch_buf.data;
        if (vxlan_ef_msg_write(vsd, buf, vxlan_ef::msg_len(buf)) != 0)
            return -1;
    }
    return rc;
}

int vxlan_ef_msg_write(vxlan_ef_vsd_t *vsd, uint8_t *buffer, uint32_t length)
{
    // The buffer is one of the instance record's: once the record has gone
    // it is freed memory, so nothing is sent and nothing reset. A write
    // reports 0 whatever became of the message.
    if (g_vxlan_vsd == nullptr || vsd == nullptr || buffer == nullptr)
        return 0;
    VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] send msg to user, pid: %d\n",
                   static_cast<int>(vsd->user_pid));
    auto *msg = static_cast<ef_msg_t *>(
        vxlan_ef_kmalloc(VXLAN_EF_MEM_MSG, length + EF_MSG_HDR_LEN, 0));
    if (msg == nullptr) {
        VXLAN_EF_ERR("VXLAN-EF-ERR: [vsd %d %s] send msg malloc failed.\n");
    } else {
        std::memset(&msg->fw, 0, sizeof msg->fw);
        msg->module_id = EF_MSG_MODULE_VXLAN;
        msg->len = length;
        std::memcpy(msg->data, buffer, length);
        int rc = ef_msg_send(msg);
        for (int retry = 1; rc == EF_MSG_EAGAIN && retry <= kMaxSendRetries; ++retry) {
            VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] vxlan send message %d times.\n", retry);
            rc = ef_msg_send(msg);
        }
        if (rc != 0)
            VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] send msg to user failed.\n");
        else
            VXLAN_EF_EVENT("VXLAN-EF-EVENT: [vsd %d %s] send msg to user ok, pid: %d, ver: %d, "
                           "len: %d, tlv_num: %d\n",
                           static_cast<int>(vsd->user_pid), buffer[0], vxlan_ef::msg_len(buffer),
                           buffer[3]);
        ef_free(VXLAN_EF_EF_MEM_TYPE, msg);
    }
    auto *buf = reinterpret_cast<vxlan_ef_send_buf_t *>(buffer);
    vxlan_ef::send_buf_reset(buf);
    return 0;
}
