// efhost's control-socket envelope reader target: each input is one datagram
// exactly as a client sent it (no leading option bytes), read by ctl::decode
// as efhost's control client reads every datagram.
//
// What must hold:
//  - decode accepts, or refuses with a non-empty reason;
//  - an accepted datagram is at least 28 bytes and starts with the magic, its
//    payload is exactly the bytes after the 28-byte header and as many as the
//    header's length field says, and encoding the decoded envelope gives the
//    datagram back byte for byte, except bytes 8..15 (the two framework words
//    decode ignores, which encode writes as zero);
//  - a refusal's reason is one of decode's three (shorter than the header, no
//    EF magic, a length field that disagrees with the bytes carried), with the
//    numbers of this datagram, and what it says is true of the datagram;
//  - the done envelope efhost answers a refusal with (seq 0, flags 0, the
//    done module, payload "error: " and the reason) decodes back to the same
//    fields, and fits what a client reads in one datagram.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ctl_wire.h"

namespace {

[[noreturn]] void fail(const std::string &what)
{
    std::fprintf(stderr, "\n==== fuzz check failed ====\n%s\n", what.c_str());
    std::abort();
}

uint32_t word(const uint8_t *p)
{
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

void check_accepted(const uint8_t *data, size_t size, const ctl::Envelope &env)
{
    if (size < ctl::kHeaderLen)
        fail("accepted a datagram of " + std::to_string(size) + " bytes, shorter than the header");
    if (word(data) != ctl::kMagic)
        fail("accepted a datagram that does not start with the magic");
    const size_t carried = size - ctl::kHeaderLen;
    if (word(data + 24) != carried)
        fail("accepted a datagram whose length field says " + std::to_string(word(data + 24)) +
             " but that carries " + std::to_string(carried) + " payload bytes");
    if (env.payload.size() != carried ||
        (carried != 0 && std::memcmp(env.payload.data(), data + ctl::kHeaderLen, carried) != 0))
        fail("the decoded payload (" + std::to_string(env.payload.size()) +
             " bytes) is not the " + std::to_string(carried) + " bytes after the header");
    const std::vector<uint8_t> again = ctl::encode(env);
    if (again.size() != size)
        fail("the decoded envelope encodes to " + std::to_string(again.size()) + " bytes, not " +
             std::to_string(size));
    for (size_t i = 0; i < size; ++i) {
        const uint8_t want = i >= 8 && i < 16 ? 0 : data[i];
        if (again[i] != want)
            fail("the decoded envelope encodes to a different byte at offset " + std::to_string(i) + ": " +
                 std::to_string(again[i]) + " instead of " + std::to_string(want));
    }
}

// The reasons decode may give for this datagram: each form with this
// datagram's numbers, and only where what it says is true.
std::vector<std::string> true_reasons(const uint8_t *data, size_t size)
{
    std::vector<std::string> out;
    if (size < ctl::kHeaderLen)
        out.push_back("envelope of " + std::to_string(size) + " bytes is shorter than its 28-byte header");
    if (size < 4 || word(data) != ctl::kMagic)
        out.push_back("envelope does not start with the EF magic");
    if (size >= ctl::kHeaderLen && word(data + 24) != size - ctl::kHeaderLen)
        out.push_back("envelope says " + std::to_string(word(data + 24)) + " payload bytes but carries " +
                      std::to_string(size - ctl::kHeaderLen));
    return out;
}

void check_refused(const uint8_t *data, size_t size, const std::string &reason)
{
    if (reason.empty())
        fail("a refused datagram of " + std::to_string(size) + " bytes without a reason");
    const std::vector<std::string> allowed = true_reasons(data, size);
    if (allowed.empty())
        fail("refused a well-formed envelope of " + std::to_string(size) + " bytes: " + reason);
    for (const std::string &r : allowed)
        if (reason == r)
            return;
    std::string list;
    for (const std::string &r : allowed)
        list += "\n  " + r;
    fail("a refusal of a datagram of " + std::to_string(size) + " bytes says: " + reason +
         "\nwhere it could say:" + list);
}

// efhost answers a refusal with a done envelope carrying the reason, and the
// client reads it with the same decode.
void check_answer(const std::string &reason)
{
    const std::string status = "error: " + reason;
    const ctl::Envelope answer{0, 0, ctl::kModuleDone, {status.begin(), status.end()}};
    const std::vector<uint8_t> bytes = ctl::encode(answer);
    if (bytes.size() != ctl::kHeaderLen + status.size())
        fail("the answer to a refusal encodes to " + std::to_string(bytes.size()) + " bytes for a payload of " +
             std::to_string(status.size()));
    if (bytes.size() > ctl::kMaxDatagram)
        fail("the answer to a refusal is longer than a client reads: " + std::to_string(bytes.size()) + " bytes");
    ctl::Envelope back{0xA5A5A5A5u, 0xA5A5A5A5u, 0xA5A5A5A5u, {0xA5}};
    std::string error;
    if (!ctl::decode(bytes.data(), bytes.size(), back, error))
        fail("the answer to a refusal does not decode: " + error);
    if (back.seq != 0 || back.flags != 0 || back.module != ctl::kModuleDone || back.payload != answer.payload)
        fail("the answer to a refusal decodes to other fields: seq " + std::to_string(back.seq) + ", flags " +
             std::to_string(back.flags) + ", module " + std::to_string(back.module) + ", payload '" +
             std::string(back.payload.begin(), back.payload.end()) + "'");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // Fields that decode must overwrite when it accepts.
    ctl::Envelope env{0x5A5A5A5Au, 0x5A5A5A5Au, 0x5A5A5A5Au, {0x5A, 0x5A, 0x5A}};
    std::string reason;
    if (ctl::decode(data, size, env, reason)) {
        check_accepted(data, size, env);
    } else {
        check_refused(data, size, reason);
        check_answer(reason);
    }
    return 0;
}
