// Tests of the small file operations on real files in a temporary folder: what counts as a file,
// loading, and saving that replaces whole files or leaves everything as it was.
#include "values/base/FileUtil.h"

#include <gtest/gtest.h>

#include <grp.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <iterator>
#include <memory>
#include <string>

#include "testsupport/TestSupport.h"

using namespace orvexScript;
namespace fs = std::filesystem;

namespace
{

struct FreeDeleter
{
    void operator()(char *p) const { free(p); }
};
using Loaded = std::unique_ptr<char, FreeDeleter>;

Loaded Load(const std::string &path)
{
    return Loaded(FileLoadText(path.c_str()));
}

// The names in a folder, to see that nothing was left behind.
size_t EntryCount(const std::string &folder)
{
    return static_cast<size_t>(std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
}

struct stat StatOf(const std::string &path)
{
    struct stat st{};
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    return st;
}

} // namespace

TEST(FileExists, OnlyRegularFilesExistHaveASizeAndLoad)
{
    orvexTest::TempDir dir;
    std::string file = dir.Write("a.bin", std::string(70000, 'q'));
    EXPECT_EQ(FileGetSize(file.c_str()), 70000u);
    dir.Write("empty", "");
    for (const std::string &other : {dir.Path(), dir.File("missing"), dir.File("empty")})
    {
        EXPECT_EQ(FileExists(other.c_str()), other == dir.File("empty")) << other;
        EXPECT_EQ(FileGetSize(other.c_str()), 0u) << other;
        EXPECT_FALSE(Load(other)) << other;
    }
    EXPECT_FALSE(FileExists(nullptr));
    EXPECT_FALSE(FileLoadText(nullptr));
}

TEST(FileLoadText, GivesNullForAnUnreadableFile)
{
    orvexTest::TempDir dir;
    std::string file = dir.Write("secret", "content");
    fs::permissions(file, fs::perms::none);
    if (access(file.c_str(), R_OK) == 0) GTEST_SKIP() << "permissions don't bind this user";
    EXPECT_FALSE(Load(file));
    EXPECT_EQ(FileGetSize(file.c_str()), 0u);
    EXPECT_TRUE(FileExists(file.c_str())); // it can still be examined
}

TEST(FileLoadText, NamedPipeIsNoFileAndDoesNotBlock)
{
    orvexTest::TempDir dir;
    std::string fifo = dir.File("pipe");
    ASSERT_EQ(orvexTest::RunProcess({"/usr/bin/mkfifo", fifo}, 10000).exitCode, 0);
    auto probe = std::async(std::launch::async, [&]
                            { return FileGetSize(fifo.c_str()) == 0 && !Load(fifo) && !FileExists(fifo.c_str()); });
    if (probe.wait_for(std::chrono::seconds(10)) != std::future_status::ready)
    {
        // A reader blocked in open: writers let it go on, so the test fails instead of hanging.
        for (int i = 0; i < 3 && probe.wait_for(std::chrono::milliseconds(0)) != std::future_status::ready;
             ++i)
            orvexTest::RunProcess({"/bin/sh", "-c", "echo > '" + fifo + "'"}, 3000);
        ADD_FAILURE() << "reading a named pipe blocked";
    }
    EXPECT_TRUE(probe.get());
}

// A save replaces the whole file, keeps its permissions, writes exactly the length given (a NUL
// inside it too) and loads back the same.
TEST(FileSaveText, ReplacesTheWholeFileAndLoadsBackTheSame)
{
    orvexTest::TempDir dir;
    std::string file = dir.Write("out.txt", std::string(1000, 'o'));
    const auto perms = fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read;
    fs::permissions(file, perms);
    ASSERT_TRUE(FileSaveText(file.c_str(), "abcdef", 3));
    EXPECT_EQ(orvexTest::ReadFile(file), "abc");
    EXPECT_EQ(fs::status(file).permissions() & fs::perms::all, perms);
    ASSERT_TRUE(FileSaveText(file.c_str(), "a\0b", 3));
    EXPECT_EQ(orvexTest::ReadFile(file), std::string("a\0b", 3));
    std::string text = "first line\r\nsecond line\n\xC3\xA9" + std::string(100000, 'z');
    ASSERT_TRUE(FileSaveText(file.c_str(), text.c_str()));
    Loaded loaded = Load(file);
    ASSERT_TRUE(loaded);
    EXPECT_EQ(std::string(loaded.get()), text);
    EXPECT_EQ(EntryCount(dir.Path()), 1u);
}

TEST(FileSaveText, FailuresTouchNothingAndLeaveNothing)
{
    orvexTest::TempDir dir;
    std::string kept = dir.Write("kept.txt", "old");
    fs::create_directory(dir.File("folder"));
    EXPECT_FALSE(FileSaveText(dir.File("none.txt").c_str(), nullptr, 5));
    EXPECT_FALSE(FileSaveText(kept.c_str(), ""));
    EXPECT_FALSE(FileSaveText(dir.File("no/such/folder/f.txt").c_str(), "text"));
    EXPECT_FALSE(FileSaveText(dir.File("folder").c_str(), "text")); // a directory can't be replaced
    EXPECT_EQ(orvexTest::ReadFile(kept), "old");
    EXPECT_TRUE(fs::is_directory(dir.File("folder")));
    EXPECT_EQ(EntryCount(dir.Path()), 2u);
}

TEST(FileSaveText, WritesThroughASymbolicLink)
{
    orvexTest::TempDir dir;
    std::string target = dir.Write("target.txt", "old");
    fs::create_symlink(target, dir.File("link.txt"));
    ASSERT_TRUE(FileSaveText(dir.File("link.txt").c_str(), "new"));
    EXPECT_TRUE(fs::is_symlink(dir.File("link.txt")));
    EXPECT_EQ(orvexTest::ReadFile(target), "new");
}

// Runs `save` in a child process that, when this one is root, first becomes an unprivileged user, so that
// permission bits bind it. Gives the child's exit status (0 for a successful save), or -1.
template <class F> int SaveAsUnprivilegedUser(F save, uid_t user)
{
    const pid_t child = fork();
    if (child < 0) return -1;
    if (child == 0)
    {
        if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(user) != 0 || setuid(user) != 0))
            _exit(3);
        _exit(save() ? 0 : 1);
    }
    int status = 0;
    for (int i = 0; i < 5000; ++i) // at most about 5 s
    {
        if (waitpid(child, &status, WNOHANG) == child) return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        usleep(1000);
    }
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    return -1;
}

TEST(FileSaveText, WritableFileInAReadOnlyFolderIsWrittenInPlace)
{
    constexpr uid_t kNobody = 65534; // the user that root becomes for this test
    orvexTest::TempDir dir;
    fs::permissions(dir.Path(), fs::perms::owner_all | fs::perms::others_exec);
    fs::create_directory(dir.File("ro"));
    std::string file = dir.Write("ro/f.txt", std::string(100, 'o'));
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    ASSERT_TRUE(geteuid() != 0 || chown(file.c_str(), kNobody, kNobody) == 0);
    const struct stat before = StatOf(file);
    fs::permissions(dir.File("ro"), fs::perms::owner_read | fs::perms::owner_exec | fs::perms::others_read |
                                        fs::perms::others_exec);

    const int status = SaveAsUnprivilegedUser([&] { return FileSaveText(file.c_str(), "new"); }, kNobody);
    fs::permissions(dir.File("ro"), fs::perms::owner_all);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(orvexTest::ReadFile(file), "new");
    const struct stat after = StatOf(file);
    EXPECT_EQ(after.st_ino, before.st_ino); // the same file, rewritten
    EXPECT_EQ(after.st_mode & 07777, 0640u);
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_EQ(EntryCount(dir.File("ro")), 1u);
}

TEST(FileSaveText, ReplacedFileKeepsItsOwner)
{
    if (geteuid() != 0) GTEST_SKIP() << "only root can make a file of another owner to replace";
    orvexTest::TempDir dir;
    std::string file = dir.Write("owned.txt", "old");
    ASSERT_EQ(chown(file.c_str(), 4242, 4343), 0);
    const struct stat before = StatOf(file);
    ASSERT_TRUE(FileSaveText(file.c_str(), "new"));
    const struct stat after = StatOf(file);
    EXPECT_EQ(orvexTest::ReadFile(file), "new");
    EXPECT_NE(after.st_ino, before.st_ino); // replaced by the rename, not rewritten
    EXPECT_EQ(after.st_uid, 4242u);
    EXPECT_EQ(after.st_gid, 4343u);
}
