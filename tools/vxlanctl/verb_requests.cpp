// The requests of the raw, show, debug, techdump and apply verbs, and the hex
// reader of raw.
#include <array>
#include <string_view>

#include "apply_verb.h"
#include "request.h"
#include "vxlan_ef_requests.h"
#include "word_match.h"

namespace vxlanctl {

namespace {

using vxlan_ef::tlv::ShowId;

// The show tables by word, with their show ids.
struct ShowDef {
    std::string_view word;
    ShowId id;
};
constexpr std::array<ShowDef, 5> kShows = {{{"status", ShowId::Status},
                                             {"entry", ShowId::Entry},
                                             {"intf", ShowId::Intf},
                                             {"vrf", ShowId::Vrf},
                                             {"subif", ShowId::Subif}}};

// The table a (possibly shortened) word names; nullptr with error set when
// it names none or several.
const ShowDef *find_show(const std::string &word, const std::string &prefix, std::string &error)
{
    std::vector<std::string> words;
    for (const ShowDef &s : kShows)
        words.emplace_back(s.word);
    const WordMatch match = match_word(word, words);
    if (match.kind == WordMatch::Kind::Ambiguous) {
        error = prefix + "ambiguous table " + quoted(word) + "; it could be " + one_of(match.candidates);
        return nullptr;
    }
    for (const ShowDef &s : kShows)
        if (match.kind == WordMatch::Kind::Found && s.word == match.word)
            return &s;
    error = prefix + "unknown table " + quoted(word) + "; choose status, entry [VNI], intf, vrf or subif";
    return nullptr;
}

Request one_tlv(const Tlv &tlv)
{
    std::string unused;
    Request request;
    request.messages = *pack_messages({tlv}, unused);
    request.tlv_count = 1;
    return request;
}

std::optional<uint64_t> number_upto(const std::string &text, uint64_t max)
{
    const auto v = parse_unsigned(text);
    return v && *v <= max ? v : std::nullopt;
}

int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

}  // namespace

std::optional<std::vector<uint8_t>> parse_hex(const std::string &text, std::string &error)
{
    std::vector<uint8_t> bytes;
    int pending = -1;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == ' ' || c == ':')
            continue;
        const int d = hex_digit(c);
        if (d < 0) {
            error = quoted(std::string_view(&c, 1)) + " at position " + std::to_string(i + 1) +
                    " is not a hex digit, a space or a colon";
            return std::nullopt;
        }
        if (pending < 0) {
            pending = d;
        } else {
            bytes.push_back(static_cast<uint8_t>(pending << 4 | d));
            pending = -1;
        }
    }
    if (pending >= 0) {
        error = "odd number of hex digits (" + std::to_string(bytes.size() * 2 + 1) + ")";
        return std::nullopt;
    }
    return bytes;
}

std::optional<Request> raw_request(const std::vector<std::string> &hex, std::string &error)
{
    std::string text;
    for (const std::string &part : hex)
        text += (text.empty() ? "" : " ") + part;
    auto bytes = parse_hex(text, error);
    if (!bytes) {
        error = "vxlanctl: raw: " + error;
        return std::nullopt;
    }
    Request request;
    request.messages.push_back(std::move(*bytes));
    return request;
}

std::optional<Request> show_request(const std::vector<std::string> &args, std::string &error)
{
    const std::string prefix = "vxlanctl: show: ";
    const ShowDef *show = find_show(args.empty() ? "" : args[0], prefix, error);
    if (show == nullptr)
        return std::nullopt;
    const size_t allowed = show->word == "entry" ? 2 : 1;
    if (args.size() > allowed) {
        error = prefix + "'" + std::string(show->word) + "' takes " +
                (allowed == 2 ? "at most one VNI" : "no argument") + ", got '" + args[allowed] + "'";
        return std::nullopt;
    }
    uint64_t vni = 0;
    if (args.size() == 2) {
        const auto v = number_upto(args[1], kLastVni);
        if (!v) {
            error = prefix + "VNI '" + args[1] + "' is not a number in 0.." + std::to_string(kLastVni);
            return std::nullopt;
        }
        vni = *v;
    }
    Request request = one_tlv(TlvWriter(kEfShow)
                                  .number("show_id", static_cast<uint16_t>(show->id))
                                  .number("vni", static_cast<int64_t>(vni))
                                  .tlv());
    if (vni != 0)
        request.not_found_line = prefix + "no VNI " + std::to_string(vni) + " in the module";
    return request;
}

std::optional<Request> debug_request(const std::vector<std::string> &args, std::string &error)
{
    const std::string prefix = "vxlanctl: debug: ";
    if (args.size() != 1 && args.size() != 3) {
        error = prefix + "give MASK alone or MASK IFX BUDGET, got " + std::to_string(args.size()) + " arguments";
        return std::nullopt;
    }
    const char *names[] = {"MASK", "IFX", "BUDGET"};
    const uint64_t max[] = {0xFFFF, 0xFFFFFFFF, 0xFFFFFFFF};
    uint64_t values[3] = {0, 0, 0};
    for (size_t i = 0; i < args.size(); ++i) {
        const auto v = number_upto(args[i], max[i]);
        if (!v) {
            error = prefix + names[i] + " '" + args[i] + "' is not a number in 0.." + std::to_string(max[i]) +
                    " (decimal or 0x hex)";
            return std::nullopt;
        }
        values[i] = *v;
    }
    return one_tlv(TlvWriter(kEfDbg)
                       .number("mask", static_cast<int64_t>(values[0]))
                       .number("trace_ifx", static_cast<int64_t>(values[1]))
                       .number("budget", static_cast<int64_t>(values[2]))
                       .tlv());
}

Request techdump_request()
{
    // efhost's done envelope names the file written.
    return one_tlv(TlvWriter(kEfCtrl).number("ctrl", vxlan_ef::tlv::kCtrlTechDump).number("oper", 1).tlv());
}

std::optional<Request> apply_request(const std::string &path, std::string &error)
{
    const auto config = read_apply_file(path, error);
    if (!config)
        return std::nullopt;
    return resync_request(*config, {}, error);
}

}  // namespace vxlanctl
