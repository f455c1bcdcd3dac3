// What one vxlanctl verb sends and waits for, built from its command-line
// arguments before any connection is made: a verb whose arguments are wrong
// sends nothing. Each builder returns the request, or nothing with error set
// to the complete line to print.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tlv_message.h"

namespace vxlanctl {

// Exit codes of vxlanctl.
enum ExitCode : int {
    kExitOk = 0,
    kExitConnection = 1,  // cannot connect, or the connection failed
    kExitNotFound = 1,    // what was asked for does not exist
    kExitUsage = 2,       // bad command line or apply file; nothing sent
    kExitTimeout = 3,     // efhost did not answer in time
    kExitRefused = 4,     // efhost answered with an error
    kExitModuleError = 5, // the module logged errors for what was sent
};

struct Request {
    std::vector<Message> messages;  // the last one asks efhost to report when it is done
    size_t tlv_count = 0;
    // Waits for the module's EF_DATA_READY instead of efhost's done envelope.
    bool until_data_ready = false;
    // Prints "sent N TLVs in M messages" once everything has gone out.
    bool report_sent = false;
    // Printed when the awaited reply has come; empty = nothing.
    std::string finish_line;
    // When the module refused it and printed nothing: this line, exit
    // kExitNotFound (a show of something that does not exist).
    std::string not_found_line;
};

// send TYPE field=value ...: one TLV of a catalogued type.
std::optional<Request> send_request(const std::string &type, const std::vector<std::string> &fields,
                                    std::string &error);
// raw HEX...: one whole message given in hex, sent as is.
std::optional<Request> raw_request(const std::vector<std::string> &hex, std::string &error);
// show status|entry [VNI]|intf|vrf|subif.
std::optional<Request> show_request(const std::vector<std::string> &args, std::string &error);
// debug MASK [IFX BUDGET].
std::optional<Request> debug_request(const std::vector<std::string> &args, std::string &error);
// techdump: the tech-support dump.
Request techdump_request();
// apply FILE: a full resynchronisation to the file's configuration.
std::optional<Request> apply_request(const std::string &path, std::string &error);

// The bytes a hex text stands for; spaces and colons between digits are
// ignored. Nothing, with error set, for an odd digit count or another character.
std::optional<std::vector<uint8_t>> parse_hex(const std::string &text, std::string &error);

}  // namespace vxlanctl
