// Shared test fixture: a clean reference platform and module globals for
// every test, plus builders for VXLAN messages and readers for what the
// module logged and sent.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <sstream>
#include <string>
#include <vector>

#include "efrt.h"
#include "efrt_services.h"
#include "vxlan_ef.h"
#include "vxlan_ef_frame.h"
#include "vxlan_ef_tlv_catalogue.h"

namespace vxtest {

// One TLV: its type and value bytes.
struct Tlv {
    uint16_t type;
    std::vector<uint8_t> value;
};

// Builds a VXLAN message image: header (ver, len, tlv_num) and TLVs.
inline std::vector<uint8_t> make_msg(const std::vector<Tlv> &tlvs, uint8_t ver = 1)
{
    std::vector<uint8_t> m(4);
    for (const Tlv &t : tlvs) {
        uint16_t len = static_cast<uint16_t>(t.value.size());
        m.push_back(static_cast<uint8_t>(t.type));
        m.push_back(static_cast<uint8_t>(t.type >> 8));
        m.push_back(static_cast<uint8_t>(len));
        m.push_back(static_cast<uint8_t>(len >> 8));
        m.insert(m.end(), t.value.begin(), t.value.end());
    }
    m[0] = ver;
    uint16_t total = static_cast<uint16_t>(m.size());
    std::memcpy(&m[1], &total, 2);
    m[3] = static_cast<uint8_t>(tlvs.size());
    return m;
}

inline uint16_t msg_len(const std::vector<uint8_t> &m)
{
    uint16_t len;
    std::memcpy(&len, &m[1], 2);
    return len;
}

template <typename T>
inline void put(std::vector<uint8_t> &v, size_t at, T value)
{
    if (v.size() < at + sizeof value)
        v.resize(at + sizeof value);
    std::memcpy(&v[at], &value, sizeof value);
}

// EF_DBG value: mask, trace interface, trace budget.
inline Tlv ef_dbg(uint16_t mask, uint32_t ifx = 0, uint32_t budget = 0)
{
    std::vector<uint8_t> v(12);
    put(v, 0, mask);
    put(v, 4, ifx);
    put(v, 8, budget);
    return Tlv{vxlan_ef::tlv::kEfDbg, v};
}

class ModuleTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        efrt::reset();
        efrt::syslog_set_time_text("2026-11-21 12:00:00");
        g_vxlan_ef_eve = 0;
        vxlan_ef_thread = nullptr;
        std::memset(g_vxlan_ef_kmem_count, 0, sizeof g_vxlan_ef_kmem_count);
        reset_followers();
        unsetenv("VSDID");
        unsetenv("TMPDIR");
    }

    // The capability record, the app-db callbacks and the bridge pointers
    // outlive an instance; every test starts them empty.
    static void reset_followers()
    {
        g_vxlan_ef_master = vxlan_ef_master_t{};
        g_vxlan_ef_mom_reg = ef_mom_reg_t{};
        vxlan_ef_bridge_mac_lookup = nullptr;
        vxlan_ef_bridge_intf_pvid_get = nullptr;
        vxlan_ef_l2protocol_pkt_check = nullptr;
        vxlan_ef_add_mac_entry = nullptr;
        vxlan_ef_intf_vlan_check = nullptr;
    }

    // Turns a capability on (or off) before start; every capability is off
    // unless set.
    static void set_cap(const char *path, bool on = true) { efrt::cap_define(path, on); }

    void TearDown() override
    {
        if (g_vxlan_vsd != nullptr)
            vxlan_ef_exit();
        efrt::reset();
        vxlan_ef_thread = nullptr;
        unsetenv("VSDID");
        unsetenv("TMPDIR");
    }

    // Starts the module; the test fails when start-up does.
    void start(const char *vsdid = "3")
    {
        if (vsdid != nullptr)
            setenv("VSDID", vsdid, 1);
        ASSERT_EQ(vxlan_ef_init(), 0);
        ASSERT_NE(g_vxlan_vsd, nullptr);
    }

    // Sets the debug mask directly, as EF_DBG would.
    void set_mask(uint16_t mask) { g_vxlan_vsd->debug_mask = mask; }

    // Delivers one message on the channel and lets the module task drain it.
    void deliver(const std::vector<uint8_t> &msg)
    {
        ASSERT_EQ(efrt::msg_deliver(EF_MSG_MODULE_VXLAN, msg), 0);
        efrt::clock_advance(100);
    }

    void deliver_tlvs(const std::vector<Tlv> &tlvs) { deliver(make_msg(tlvs)); }

    static std::vector<std::string> logs() { return efrt::syslog_texts(); }
    static std::vector<std::string> take_logs()
    {
        std::vector<std::string> out;
        for (auto &r : efrt::syslog_take())
            out.push_back(r.text);
        return out;
    }

    static bool logged(const std::string &text)
    {
        for (const auto &t : efrt::syslog_texts())
            if (t == text)
                return true;
        return false;
    }

    static bool logged_containing(const std::string &part)
    {
        for (const auto &t : efrt::syslog_texts())
            if (t.find(part) != std::string::npos)
                return true;
        return false;
    }
};

// A scratch TMPDIR (mkdtemp under /tmp) holding dc/vxlan, exported as TMPDIR
// for its lifetime and removed with all it holds.
class ScratchTmpdir {
public:
    explicit ScratchTmpdir(bool with_log_dir = true)
    {
        char tmpl[] = "/tmp/vxlan_ef_test.XXXXXX";
        if (mkdtemp(tmpl) == nullptr)
            ADD_FAILURE() << "mkdtemp failed";
        path_ = tmpl;
        if (with_log_dir)
            std::filesystem::create_directories(path_ + "/dc/vxlan");
        setenv("TMPDIR", path_.c_str(), 1);
    }
    ~ScratchTmpdir()
    {
        unsetenv("TMPDIR");
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    ScratchTmpdir(const ScratchTmpdir &) = delete;
    ScratchTmpdir &operator=(const ScratchTmpdir &) = delete;

    const std::string &path() const { return path_; }
    std::string log_path() const { return path_ + "/dc/vxlan/vxlan_ef_log_dump.text"; }
    std::string old_log_path() const { return path_ + "/dc/vxlan/vxlan_ef_log_dump_old.text"; }

private:
    std::string path_;
};

// The whole content of a file; empty when it cannot be read.
inline std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

inline bool file_exists(const std::string &path) { return std::filesystem::exists(path); }

// One log-file line as the fixture's fixed time stamp makes it.
inline std::string log_file_line(const std::string &message)
{
    return "2026-11-21 12:00:00 " + message + "\r\n";
}

// Byte vectors written as lists of small integers.
inline std::vector<uint8_t> bytes(std::initializer_list<int> values)
{
    std::vector<uint8_t> out;
    for (int v : values)
        out.push_back(static_cast<uint8_t>(v));
    return out;
}

// The lines of a log that begin with prefix, in order.
inline std::vector<std::string> lines_starting(const std::vector<std::string> &lines,
                                               const std::string &prefix)
{
    std::vector<std::string> out;
    for (const auto &l : lines)
        if (l.compare(0, prefix.size(), prefix) == 0)
            out.push_back(l);
    return out;
}

}  // namespace vxtest
