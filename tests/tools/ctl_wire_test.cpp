// The control socket's envelope framing: what goes on the wire and what a
// receiver refuses.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "ctl_wire.h"

namespace {

uint32_t word(const std::vector<uint8_t> &b, size_t at)
{
    uint32_t v;
    std::memcpy(&v, &b[at], 4);
    return v;
}

TEST(CtlWireTest, EnvelopeCarriesMagicModuleLengthAndPayloadAtTheirOffsets)
{
    ctl::Envelope env;
    env.seq = 7;
    env.flags = ctl::kFlagReplyWhenDone;
    env.module = ctl::kModuleVxlan;
    env.payload = {1, 8, 0, 1, 0, 0, 0, 0};
    const std::vector<uint8_t> b = ctl::encode(env);
    ASSERT_EQ(b.size(), 36u);
    EXPECT_EQ(word(b, 0), 0x45464D31u);
    EXPECT_EQ(word(b, 4), 7u);
    EXPECT_EQ(word(b, 16), 1u);
    EXPECT_EQ(word(b, 20), 31u);
    EXPECT_EQ(word(b, 24), 8u);
    EXPECT_EQ(std::vector<uint8_t>(b.begin() + 28, b.end()), env.payload);
}

TEST(CtlWireTest, DecodeRefusesShortWrongMagicAndLengthMismatch)
{
    ctl::Envelope env{1, 0, 31, {9, 9}};
    std::vector<uint8_t> b = ctl::encode(env);
    ctl::Envelope out;
    std::string error;
    EXPECT_FALSE(ctl::decode(b.data(), 27, out, error));
    EXPECT_EQ(error, "envelope of 27 bytes is shorter than its 28-byte header");
    EXPECT_FALSE(ctl::decode(b.data(), b.size() - 1, out, error));
    EXPECT_EQ(error, "envelope says 2 payload bytes but carries 1");
    b[0] ^= 1;
    EXPECT_FALSE(ctl::decode(b.data(), b.size(), out, error));
    EXPECT_EQ(error, "envelope does not start with the EF magic");
}

TEST(CtlWireTest, EnvelopeCrossesASeqpacketSocketWhole)
{
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv), 0);
    ctl::Envelope env{3, 0, ctl::kModuleShowLine, {'a', 'b', 'c'}};
    std::string error;
    ASSERT_TRUE(ctl::send_envelope(sv[0], env, error)) << error;
    ctl::Envelope out;
    ASSERT_EQ(ctl::recv_envelope(sv[1], out, 1000, error), 1) << error;
    EXPECT_EQ(out.seq, 3u);
    EXPECT_EQ(out.module, ctl::kModuleShowLine);
    EXPECT_EQ(out.payload, env.payload);
    close(sv[0]);
    EXPECT_EQ(ctl::recv_envelope(sv[1], out, 1000, error), -1);
    EXPECT_EQ(error, "the peer closed the connection");
    close(sv[1]);
}

// A socket path of the test's own in the temporary directory.
std::string socket_path(const char *name) { return ::testing::TempDir() + name + std::to_string(getpid()); }

TEST(CtlWireTest, SocketAnotherProcessAnswersOnIsRefusedAndStaysItsOwn)
{
    const std::string path = socket_path("answered");
    std::string error;
    const int first = ctl::listen_socket(path, error);
    ASSERT_GE(first, 0) << error;
    EXPECT_EQ(ctl::listen_socket(path, error), -1);
    EXPECT_EQ(error, "another process answers on " + path + " (is another efhost running?)");
    const int client = ctl::connect_socket(path, error);
    EXPECT_GE(client, 0) << "the first listener lost its socket: " << error;
    close(client);
    close(first);
    unlink(path.c_str());
}

TEST(CtlWireTest, SocketFileLeftByAProcessThatIsGoneIsTakenOver)
{
    const std::string path = socket_path("left");
    std::string error;
    const int gone = ctl::listen_socket(path, error);
    ASSERT_GE(gone, 0) << error;
    close(gone);  // the file stays, nobody answers on it
    const int second = ctl::listen_socket(path, error);
    ASSERT_GE(second, 0) << error;
    const int client = ctl::connect_socket(path, error);
    EXPECT_GE(client, 0) << error;
    close(client);
    close(second);
    unlink(path.c_str());
}

TEST(CtlWireTest, PathThatIsNotASocketIsRefusedAndLeftAsItIs)
{
    const std::string path = socket_path("file");
    std::ofstream(path) << "not a socket\n";
    std::string error;
    EXPECT_EQ(ctl::listen_socket(path, error), -1);
    EXPECT_EQ(error, path + " exists and is not a socket; efhost does not replace it");
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_EQ(text.str(), "not a socket\n");
    unlink(path.c_str());
}

}  // namespace
