// What efhost watches for in the VXLAN messages a client sends, around the
// module's processing of them: the module reports nothing back to its
// control process, so efhost tells the client what it can see for itself.
//  - Refusals: the module logs them only while its error flag is set, so the
//    flag is switched on for a client's run (when it was off) and its lines
//    are handed to that client; the flag is put back when the run ends,
//    unless the run itself set the debug mask. A run that begins with a
//    status show or a tech dump is left alone: they print the mask.
//  - The tech-support dump: whether the file was written, and where.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "vxlan_ef.h"

namespace efhost {

// Whether a VXLAN message holds a TLV of this type.
bool message_has_tlv(const uint8_t *msg, size_t size, uint16_t type);

// Whether a module log line reports a refusal or failure.
bool is_module_error_line(const std::string &text);

class ModuleErrorFlag {
public:
    // The instance whose debug mask is switched; nullptr for none.
    void bind(vxlan_ef_vsd_t *instance) { instance_ = instance; }
    // A client's run begins with this message.
    void run_started(const std::vector<uint8_t> &payload);
    // A later message of the same run.
    void run_continued(const std::vector<uint8_t> &payload);
    void run_ended();

private:
    vxlan_ef_vsd_t *instance_ = nullptr;
    bool switched_on_ = false;
    bool run_set_mask_ = false;
};

// The tech-support dump of one message: its path, and whether the module
// wrote it while processing.
class TechDumpCheck {
public:
    void bind(vxlan_ef_vsd_t *instance) { instance_ = instance; }
    // Notes a message before the module processes it.
    void delivering(const std::vector<uint8_t> &payload);
    // Once processed: nothing when no dump was asked for, else the status
    // for the done envelope ("ok: ..." or "error: ...").
    std::optional<std::string> outcome();

private:
    vxlan_ef_vsd_t *instance_ = nullptr;
    bool asked_ = false;
    std::string path_;
    std::optional<timespec> before_;  // the file's change time, when it existed
};

// The file the module writes its tech-support dump to, and its directory.
std::string tech_dump_path(int instance_id);
std::string tech_dump_dir(int instance_id);

}  // namespace efhost
