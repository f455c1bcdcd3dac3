// vxlanctl's argument parsers target: arbitrary words (split at NUL bytes)
// as the arguments of the send, raw, show and debug verbs, and as hex text.
// The first byte picks the verb. A request that builds must consist of
// messages that unpack (raw sends its bytes as they are and is exempt), and
// a refused one must say why.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "request.h"
#include "tlv_message.h"

namespace {

[[noreturn]] void fail(const std::string &what)
{
    std::fprintf(stderr, "\n==== fuzz check failed ====\n%s\n", what.c_str());
    std::abort();
}

std::vector<std::string> words(const uint8_t *data, size_t size)
{
    std::vector<std::string> out(1);
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0)
            out.emplace_back();
        else
            out.back().push_back(static_cast<char>(data[i]));
    }
    return out;
}

void check(const std::optional<vxlanctl::Request> &r, const std::string &error, bool unpackable)
{
    if (!r) {
        if (error.empty())
            fail("a refused request without an error");
        return;
    }
    if (r->messages.empty())
        fail("a request without messages");
    if (!unpackable)
        return;
    std::string e;
    for (const vxlanctl::Message &m : r->messages)
        if (!vxlanctl::unpack_message(m, e))
            fail("a built request holds a message that does not unpack: " + e);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    std::vector<std::string> args = words(data + 1, size - 1);
    std::string error;
    switch (data[0] % 5) {
    case 0: {
        const std::string type = args.front();
        args.erase(args.begin());
        check(vxlanctl::send_request(type, args, error), error, true);
        break;
    }
    case 1:
        check(vxlanctl::raw_request(args, error), error, false);
        break;
    case 2:
        check(vxlanctl::show_request(args, error), error, true);
        break;
    case 3:
        check(vxlanctl::debug_request(args, error), error, true);
        break;
    default:
        if (!vxlanctl::parse_hex(args.front(), error) && error.empty())
            fail("refused hex text without an error");
        break;
    }
    return 0;
}
