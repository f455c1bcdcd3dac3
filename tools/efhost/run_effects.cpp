// What efhost watches for around the module's processing; see run_effects.h.
#include "run_effects.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>

#include "vxlan_ef_requests.h"
#include "vxlan_ef_tlv_catalogue.h"

namespace efhost {

namespace {

namespace tlv = vxlan_ef::tlv;

constexpr const char *kErrorPrefix = "VXLAN-EF-ERR:";

// Calls fn(type, value, length) for each whole TLV of a message.
void for_each_tlv(const uint8_t *msg, size_t size,
                  const std::function<void(uint16_t, const uint8_t *, uint16_t)> &fn)
{
    for (size_t off = 4; off + 4 <= size;) {
        uint16_t type, len;
        std::memcpy(&type, msg + off, 2);
        std::memcpy(&len, msg + off + 2, 2);
        if (off + 4 + len > size)
            return;
        fn(type, msg + off + 4, len);
        off += 4u + len;
    }
}

bool has_type(const std::vector<uint8_t> &msg, uint16_t wanted)
{
    return message_has_tlv(msg.data(), msg.size(), wanted);
}

// Whether some TLV of the type has test(field) true, the field being read
// at its catalogued offset.
template <typename T>
bool any_field(const std::vector<uint8_t> &msg, uint16_t wanted, std::string_view field,
               const std::function<bool(T)> &test)
{
    uint32_t offset = 0;
    for (const tlv::Field &f : tlv::find(wanted)->fields)
        if (f.name == field)
            offset = f.offset;
    bool found = false;
    for_each_tlv(msg.data(), msg.size(), [&](uint16_t type, const uint8_t *value, uint16_t len) {
        T v{};
        if (type != wanted || len < offset + sizeof v)
            return;
        std::memcpy(&v, value + offset, sizeof v);
        found = found || test(v);
    });
    return found;
}

bool asks_tech_dump(const std::vector<uint8_t> &msg)
{
    return any_field<uint32_t>(msg, tlv::kEfCtrl, "ctrl", [](uint32_t bits) { return (bits & tlv::kCtrlTechDump) != 0; });
}

// The status show (alone or in the tech dump) prints the debug mask, which
// must be the user's, not the one efhost switched.
bool prints_debug_mask(const std::vector<uint8_t> &msg)
{
    return asks_tech_dump(msg) || any_field<uint16_t>(msg, tlv::kEfShow, "show_id", [](uint16_t id) {
               return id == static_cast<uint16_t>(tlv::ShowId::Status);
           });
}

std::atomic_ref<uint16_t> mask_of(vxlan_ef_vsd_t *instance) { return std::atomic_ref<uint16_t>(instance->debug_mask); }

std::optional<timespec> change_time(const std::string &path)
{
    struct stat st {};
    if (stat(path.c_str(), &st) != 0)
        return std::nullopt;
    return st.st_ctim;
}

}  // namespace

bool message_has_tlv(const uint8_t *msg, size_t size, uint16_t type)
{
    bool found = false;
    for_each_tlv(msg, size, [&](uint16_t t, const uint8_t *, uint16_t) { found = found || t == type; });
    return found;
}

bool is_module_error_line(const std::string &text) { return text.rfind(kErrorPrefix, 0) == 0; }

void ModuleErrorFlag::run_started(const std::vector<uint8_t> &payload)
{
    run_set_mask_ = false;
    switched_on_ = false;
    if (instance_ != nullptr && !prints_debug_mask(payload)) {
        const uint16_t mask = mask_of(instance_).load(std::memory_order_relaxed);
        switched_on_ = (mask & VXLAN_EF_DBG_ERR) == 0;
        if (switched_on_)
            mask_of(instance_).store(static_cast<uint16_t>(mask | VXLAN_EF_DBG_ERR), std::memory_order_relaxed);
    }
    run_continued(payload);
}

void ModuleErrorFlag::run_continued(const std::vector<uint8_t> &payload)
{
    run_set_mask_ = run_set_mask_ || has_type(payload, tlv::kEfDbg);
}

void ModuleErrorFlag::run_ended()
{
    if (instance_ == nullptr || !switched_on_ || run_set_mask_)
        return;
    const uint16_t mask = mask_of(instance_).load(std::memory_order_relaxed);
    mask_of(instance_).store(static_cast<uint16_t>(mask & ~VXLAN_EF_DBG_ERR), std::memory_order_relaxed);
    switched_on_ = false;
}

void TechDumpCheck::delivering(const std::vector<uint8_t> &payload)
{
    if (instance_ == nullptr || asked_ || !asks_tech_dump(payload))
        return;
    asked_ = true;
    path_ = tech_dump_path(instance_->id);
    before_ = change_time(path_);
}

std::optional<std::string> TechDumpCheck::outcome()
{
    if (!asked_)
        return std::nullopt;
    asked_ = false;
    const auto after = change_time(path_);
    const bool written = after && (!before_ || after->tv_sec != before_->tv_sec || after->tv_nsec != before_->tv_nsec);
    if (written)
        return "ok: tech-support dump written to " + path_;
    return "error: the module wrote no tech-support dump to " + path_ +
           (after ? "" : std::string(" (") + std::strerror(ENOENT) + ")");
}

std::string tech_dump_path(int instance_id)
{
    return std::string(tlv::kTechDumpRoot) + "/" + std::to_string(instance_id) + "/" + tlv::kTechDumpFile;
}

std::string tech_dump_dir(int instance_id)
{
    const std::string file = tech_dump_path(instance_id);
    return file.substr(0, file.rfind('/'));
}

}  // namespace efhost
