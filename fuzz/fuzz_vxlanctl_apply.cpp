// vxlanctl's apply-file reader target: arbitrary text as an apply file. An
// accepted file must become a resynchronisation that packs into messages,
// and each message must unpack into the TLVs it was packed from; a refused
// one must be reported as FILE:LINE: field ...
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "apply_config.h"
#include "tlv_message.h"

namespace {

[[noreturn]] void fail(const std::string &what)
{
    std::fprintf(stderr, "\n==== fuzz check failed ====\n%s\n", what.c_str());
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    std::string error;
    const auto config = vxlanctl::read_apply_text(text, "fuzz.yaml", error);
    if (!config) {
        if (error.rfind("fuzz.yaml:", 0) != 0)
            fail("an apply error that does not name the file: " + error);
        return 0;
    }
    const std::vector<vxlanctl::Tlv> tlvs = vxlanctl::apply_tlvs(*config);
    if (tlvs.size() < 2 || tlvs.front().type != vxlanctl::kSyncDataBegin ||
        tlvs.back().type != vxlanctl::kSyncDataOver)
        fail("an apply resynchronisation is not framed by SYNC_DATA_BEGIN and SYNC_DATA_OVER");
    const auto messages = vxlanctl::pack_messages(tlvs, error);
    if (!messages)
        fail("an accepted apply file does not pack: " + error);
    std::vector<vxlanctl::Tlv> unpacked;
    for (const vxlanctl::Message &m : *messages) {
        const auto back = vxlanctl::unpack_message(m, error);
        if (!back)
            fail("a packed message does not unpack: " + error);
        unpacked.insert(unpacked.end(), back->begin(), back->end());
    }
    if (unpacked != tlvs)
        fail("the packed messages do not carry the TLVs they were packed from");
    return 0;
}
