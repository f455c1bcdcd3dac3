// The tech-support dump file, asked for through EF_CTRL, and concurrent
// writers of the log file.
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>
#include <unistd.h>

#include "module_fixture.h"
#include "vxlan_ef_tables.h"

using vxtest::ModuleTest;

namespace {

const std::string kStart = "**************** VXLAN_EF TECH-SUPPORT DUMP START ****************\n";
const std::string kEnd = "***************** VXLAN_EF TECH-SUPPORT DUMP END *****************\n";

// The dump's directory below /tmp/vsd for an instance id of this process
// alone, removed again at the end of the test.
class DumpDir {
public:
    DumpDir() : id_(700000 + static_cast<int>(getpid() % 100000))
    {
        root_ = "/tmp/vsd/" + std::to_string(id_);
        std::filesystem::create_directories(root_ + "/dc/vxlan");
    }
    ~DumpDir()
    {
        std::error_code ec;
        std::filesystem::remove_all(root_, ec);
    }
    int id() const { return id_; }
    std::string vsdid() const { return std::to_string(id_); }
    // The path exactly as the module builds it, doubled slash included.
    std::string path() const { return root_ + "//dc/vxlan/.vxlan_ef_dump.txt"; }
    std::string root() const { return root_; }

private:
    int id_;
    std::string root_;
};

std::vector<uint8_t> ef_ctrl(uint32_t ctrl, uint8_t oper)
{
    uint8_t raw[5];
    std::memcpy(raw, &ctrl, sizeof ctrl);
    raw[4] = oper;
    return std::vector<uint8_t>(raw, raw + sizeof raw);
}

// The lines of the shows in their syslog form, with the show prefix removed.
std::string unprefixed(const std::vector<std::string> &lines, int id)
{
    const std::string prefix = "VXLAN-EF-SHOW: [vsd " + std::to_string(id) + "] ";
    std::string out;
    for (const auto &l : lines) {
        EXPECT_EQ(l.rfind(prefix, 0), 0u) << l;
        out += l.substr(prefix.size());
    }
    return out;
}

}  // namespace

TEST(TechDumpBanners, AreSixtySevenBytesEach)
{
    EXPECT_EQ(kStart.size(), 67u);
    EXPECT_EQ(kEnd.size(), 67u);
}

TEST_F(ModuleTest, EfCtrlTechDumpBitWritesBannersAndShowsWithoutPrefixes)
{
    DumpDir dir;
    start(dir.vsdid().c_str());
    deliver_tlvs({vxtest::Tlv{8, {0x10, 0x27, 0, 0, 1}}});  // VNI 10000
    const int id = dir.id();

    // What the three shows print to syslog, to compare the file against.
    take_logs();
    vxlan_ef_entry_show(static_cast<uint32_t>(id), 0);
    vxlan_ef_intf_show(static_cast<uint32_t>(id));
    const std::string tables = unprefixed(take_logs(), id);

    deliver_tlvs({vxtest::Tlv{66, ef_ctrl(0x4, 1)}});
    const std::string dump = vxtest::read_file(dir.path());
    ASSERT_FALSE(dump.empty()) << "no dump file at " << dir.path();
    ASSERT_EQ(dump.rfind(kStart + tables, 0), 0u) << dump;
    EXPECT_EQ(dump.substr(dump.size() - kEnd.size()), kEnd);
    EXPECT_NE(dump.find("Global Status        : tech-dump \n"), std::string::npos)
        << dump;
    EXPECT_NE(dump.find("Entry Count          : 1\n"), std::string::npos);
    EXPECT_NE(dump.find("\n------------- DUMP CAP -------------\n"), std::string::npos);
    EXPECT_EQ(dump.find("VXLAN-EF-SHOW"), std::string::npos);
    EXPECT_EQ(g_vxlan_vsd->flags & VXLAN_EF_F_TECH_DUMP, 0u);
    for (const auto &l : logs())
        EXPECT_EQ(l.find("VXLAN-EF-SHOW"), std::string::npos) << l;
}

TEST_F(ModuleTest, TechDumpIntoLongerFileKeepsTheOldTailAfterTheEndBanner)
{
    DumpDir dir;
    start(dir.vsdid().c_str());
    const std::string old_content(20000, 'x');
    {
        std::ofstream out(dir.path(), std::ios::binary);
        out << old_content;
    }
    vxlan_ef_tech_dump(static_cast<uint32_t>(dir.id()));
    const std::string dump = vxtest::read_file(dir.path());
    ASSERT_EQ(dump.size(), old_content.size());
    const size_t end = dump.find(kEnd);
    ASSERT_NE(end, std::string::npos);
    EXPECT_EQ(dump.substr(0, kStart.size()), kStart);
    EXPECT_EQ(dump.substr(end + kEnd.size()), old_content.substr(end + kEnd.size()));
}

TEST_F(ModuleTest, TechDumpWithoutItsDirectoryLogsTheOpenFailure)
{
    DumpDir dir;
    std::filesystem::remove_all(dir.root());
    start(dir.vsdid().c_str());
    set_mask(VXLAN_EF_DBG_ERR);
    take_logs();
    vxlan_ef_tech_dump(static_cast<uint32_t>(dir.id()));
    EXPECT_EQ(take_logs(),
              std::vector<std::string>{"VXLAN-EF-ERR: [vsd " + dir.vsdid() +
                                       " vxlan_ef_tech_dump] Failed to open file: " + dir.path() +
                                       "\n"});
    EXPECT_EQ(g_vxlan_vsd->flags & VXLAN_EF_F_TECH_DUMP, 0u);
}

TEST_F(ModuleTest, TechDumpWithoutInstanceWritesNothing)
{
    DumpDir dir;
    vxlan_ef_tech_dump(static_cast<uint32_t>(dir.id()));
    EXPECT_FALSE(vxtest::file_exists(dir.path()));
    EXPECT_TRUE(logs().empty());
}

TEST_F(ModuleTest, ConcurrentLogFileWritersLoseNoLine)
{
    vxtest::ScratchTmpdir tmp;
    constexpr int kThreads = 4;
    constexpr int kLines = 250;
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t)
        writers.emplace_back([t] {
            for (int i = 0; i < kLines; ++i)
                vxlan_ef_log_dump("writer %d line %d\n", t, i);
        });
    for (auto &w : writers)
        w.join();
    const std::string content = vxtest::read_file(tmp.log_path());
    for (int t = 0; t < kThreads; ++t)
        for (int i = 0; i < kLines; ++i) {
            const std::string line = vxtest::log_file_line(
                "writer " + std::to_string(t) + " line " + std::to_string(i) + "\n");
            EXPECT_NE(content.find(line), std::string::npos) << line;
        }
    EXPECT_EQ(content.size(), [&] {
        size_t total = 0;
        for (int t = 0; t < kThreads; ++t)
            for (int i = 0; i < kLines; ++i)
                total += vxtest::log_file_line("writer " + std::to_string(t) + " line " +
                                               std::to_string(i) + "\n")
                             .size();
        return total;
    }());
}
