// orvctl's backup files: what takes the place of the last backup is on disk before.

#include "backup.h"

#include "output.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

namespace fs = std::filesystem;

namespace {

/// "sync" and "rename", with the inode of the file.
std::vector<std::string> g_calls;
bool g_is_failing = false; ///< fsync()

std::string g_complaint;

} // namespace

namespace orvctl {

void complain(std::string_view text)
{
    g_complaint = text;
}

} // namespace orvctl

extern "C" {
int __real_fsync(int fd);
int __real_rename(const char* from, const char* to);

int __wrap_fsync(int fd)
{
    struct stat status {};
    EXPECT_EQ(fstat(fd, &status), 0);
    g_calls.push_back("sync " + std::to_string(status.st_ino));
    if (!g_is_failing)
        return __real_fsync(fd);
    errno = EIO;
    return -1;
}

int __wrap_rename(const char* from, const char* to)
{
    struct stat status {};
    EXPECT_EQ(stat(from, &status), 0);
    g_calls.push_back("rename " + std::to_string(status.st_ino));
    return __real_rename(from, to);
}
}

namespace {

std::string content_of(const std::string& file)
{
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

std::string inode_of(const std::string& file)
{
    struct stat status {};
    EXPECT_EQ(stat(file.c_str(), &status), 0);
    return std::to_string(status.st_ino);
}

class BackupFile : public testing::Test {
protected:
    void SetUp() override
    {
        char name[] = "/tmp/orvctl-backup-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        m_directory = name;
        std::ofstream(file()) << "last";
        g_calls.clear();
        g_complaint.clear();
    }
    void TearDown() override { fs::remove_all(m_directory); }

    [[nodiscard]] std::string file() const { return m_directory + "/backup"; }

    std::string m_directory;
};

TEST_F(BackupFile, IsOnDiskBeforeItTakesThePlaceOfTheLastAndItsNameAfter)
{
    ASSERT_TRUE(orvctl::write_backup(file(), "new"));
    const std::string made = inode_of(file());
    EXPECT_EQ(g_calls,
              (std::vector<std::string>{"sync " + made, "rename " + made, "sync " + inode_of(m_directory)}));
    EXPECT_EQ(content_of(file()), "new");
}

TEST_F(BackupFile, ThatCannotBePutOnDiskLeavesTheLast)
{
    g_is_failing = true;
    EXPECT_FALSE(orvctl::write_backup(file(), "new"));
    g_is_failing = false;
    EXPECT_EQ(g_complaint, "cannot write " + file() + ": " + std::strerror(EIO));
    EXPECT_EQ(content_of(file()), "last");
    EXPECT_EQ(std::distance(fs::directory_iterator(m_directory), fs::directory_iterator()), 1)
        << "nothing else is left behind";
}

} // namespace
