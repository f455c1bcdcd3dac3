// The module's log file below TMPDIR: line format, the line limit, rotation
// past 1 MiB, and what happens when the path or directory is unusable.
#include <unistd.h>

#include "module_fixture.h"

namespace {

class LogFileTest : public vxtest::ModuleTest {};

using Lines = std::vector<std::string>;
using vxtest::log_file_line;

constexpr size_t kRotateSize = 1048576;

void write_file(const std::string &path, size_t size)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    const std::string chunk(4096, 'o');
    while (size > 0) {
        const size_t n = std::min(size, chunk.size());
        out.write(chunk.data(), static_cast<std::streamsize>(n));
        size -= n;
    }
}

TEST_F(LogFileTest, EveryLineIsTimeStampBlankMessageAndCrLf)
{
    vxtest::ScratchTmpdir tmp;
    vxlan_ef_log_dump("first %d\n", 1);
    vxlan_ef_log_dump("second %s", "line");
    EXPECT_EQ(vxtest::read_file(tmp.log_path()),
              "2026-11-21 12:00:00 first 1\n\r\n2026-11-21 12:00:00 second line\r\n");
}

TEST_F(LogFileTest, LineIsCutAt1023Bytes)
{
    vxtest::ScratchTmpdir tmp;
    vxlan_ef_log_dump("%s", std::string(2000, 'x').c_str());
    const std::string expected = "2026-11-21 12:00:00 " + std::string(1023 - 20, 'x') + "\r\n";
    EXPECT_EQ(vxtest::read_file(tmp.log_path()), expected);
}

TEST_F(LogFileTest, FileOfExactly1MiBIsAppendedTo)
{
    vxtest::ScratchTmpdir tmp;
    write_file(tmp.log_path(), kRotateSize);
    vxlan_ef_log_dump("more\n");
    const std::string text = vxtest::read_file(tmp.log_path());
    ASSERT_EQ(text.size(), kRotateSize + log_file_line("more\n").size());
    EXPECT_EQ(text.substr(kRotateSize), log_file_line("more\n"));
    EXPECT_FALSE(vxtest::file_exists(tmp.old_log_path()));
}

TEST_F(LogFileTest, FileOneByteOver1MiBIsRotatedAndNextLineStartsFreshFile)
{
    vxtest::ScratchTmpdir tmp;
    start();
    set_mask(VXLAN_EF_DBG_ERR);
    write_file(tmp.old_log_path(), 10);
    write_file(tmp.log_path(), kRotateSize + 1);
    vxlan_ef_log_dump("fresh\n");
    EXPECT_EQ(vxtest::read_file(tmp.log_path()), log_file_line("fresh\n"));
    EXPECT_EQ(vxtest::read_file(tmp.old_log_path()), std::string(kRotateSize + 1, 'o'));
    EXPECT_EQ(logs(), Lines{"VXLAN-EF-ERR: [vsd 0 vxlan_ef_log_dump] [" + tmp.log_path() +
                            "] size is 1048577 > 1048576, copy to [" + tmp.old_log_path() + "]\n"});
}

TEST_F(LogFileTest, UnsetTmpdirWritesNoFileAndReportsPathFailure)
{
    start();
    set_mask(VXLAN_EF_DBG_ERR);
    vxlan_ef_log_dump("lost\n");
    EXPECT_EQ(logs(), Lines{"VXLAN-EF-ERR: [vsd 0 vxlan_ef_log_dump] fail to make tmp path for "
                            "/dc/vxlan/vxlan_ef_log_dump.text\n"});
}

TEST_F(LogFileTest, TmpdirTooLongForEitherPathWritesNothing)
{
    start();
    set_mask(VXLAN_EF_DBG_ERR);
    const std::string base = "/tmp/";
    // 76 characters: the current path no longer fits 108 bytes.
    setenv("TMPDIR", (base + std::string(71, 'a')).c_str(), 1);
    vxlan_ef_log_dump("lost\n");
    // 72 characters: the current path fits, the previous one does not.
    setenv("TMPDIR", (base + std::string(67, 'a')).c_str(), 1);
    vxlan_ef_log_dump("lost\n");
    EXPECT_EQ(logs(), (Lines{
                          "VXLAN-EF-ERR: [vsd 0 vxlan_ef_log_dump] fail to make tmp path for /dc/vxlan/vxlan_ef_log_dump.text\n",
                          "VXLAN-EF-ERR: [vsd 0 vxlan_ef_log_dump] fail to make tmp path for /dc/vxlan/vxlan_ef_log_dump_old.text\n",
                      }));
}

TEST_F(LogFileTest, TmpdirOf71CharactersIsUsable)
{
    char tmpl[] = "/tmp/vxlan_ef_len.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    std::string dir = tmpl;
    dir += "/" + std::string(71 - dir.size() - 1, 'b');
    ASSERT_EQ(dir.size(), 71u);
    std::filesystem::create_directories(dir + "/dc/vxlan");
    setenv("TMPDIR", dir.c_str(), 1);
    vxlan_ef_log_dump("fits\n");
    EXPECT_EQ(vxtest::read_file(dir + "/dc/vxlan/vxlan_ef_log_dump.text"), log_file_line("fits\n"));
    std::filesystem::remove_all(tmpl);
}

TEST_F(LogFileTest, MissingLogDirectoryDropsTheLineSilently)
{
    vxtest::ScratchTmpdir tmp(false);
    start();
    set_mask(0xFFFF);
    vxlan_ef_log_dump("dropped\n");
    EXPECT_FALSE(vxtest::file_exists(tmp.log_path()));
    EXPECT_EQ(logs(), Lines{});
}

TEST_F(LogFileTest, OpenFailureOtherThanMissingDirectorySendsTheLineToSyslog)
{
    vxtest::ScratchTmpdir tmp;
    std::filesystem::create_directory(tmp.log_path());
    start();
    set_mask(VXLAN_EF_DBG_ERR);
    vxlan_ef_log_dump("rescued %d\n", 7);
    EXPECT_EQ(logs(), (Lines{
                          "VXLAN-EF-ERR: [vsd 0 vxlan_ef_log_dump] open file [" + tmp.log_path() +
                              "] fail, err:Is a directory\n",
                          "VXLAN-EF-ERR: [vsd 0 vxlan_ef_log_dump] vxlan-log: 2026-11-21 12:00:00 rescued 7\n\n",
                      }));
}

TEST_F(LogFileTest, FailuresAreSilentWithoutInstance)
{
    vxlan_ef_log_dump("nowhere\n");
    EXPECT_EQ(logs(), Lines{});
}

}  // namespace
