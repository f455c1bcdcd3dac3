// Private declarations of the capability follower: the capability paths and
// the gate of its log lines, which all print instance id 0.
#pragma once

#include "core/core_private.h"

namespace vxlan_ef {

inline constexpr const char *kCapOrNoIcmp = "g_feature_spec/dcn/CAP_VXLAN_OR_NO_ICMP";
inline constexpr const char *kCapVxlanBase = "g_feature_spec/dcn/CAP_VXLAN_BASE";
inline constexpr const char *kCapFwdmodeSoft =
    "g_feature_spec/product_platform_spec/CAP_FWDMODE_SOFT";
inline constexpr const char *kCapOutsideCenter = "g_feature_spec/dcn/CAP_VXLAN_OUTSIDECENTER";
inline constexpr const char *kCapL2vniMapping = "g_feature_spec/dcn/CAP_VXLAN_L2VNIMAPPING";

// Path buffer size for reading a change message.
inline constexpr uint32_t kCapPathLen = 256;

}  // namespace vxlan_ef

#define VXLAN_EF_CAP_LOG(bit, func, fmt, ...) VXLAN_EF_LOG_AS(bit, 0, func, fmt, ##__VA_ARGS__)
