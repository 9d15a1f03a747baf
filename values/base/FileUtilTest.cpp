// Tests of the small file operations on real files in a temporary folder: what counts as a file,
// loading, and saving that replaces whole files or leaves everything as it was.
#include "values/base/FileUtil.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <future>
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
    size_t count = 0;
    for (auto it = fs::directory_iterator(folder); it != fs::directory_iterator(); ++it)
        ++count;
    return count;
}

// Makes `path` unreadable; false when this process can read it anyway (run by root).
bool MakeUnreadable(const std::string &path)
{
    fs::permissions(path, fs::perms::none);
    if (FILE *probe = fopen(path.c_str(), "r"))
    {
        fclose(probe);
        return false;
    }
    return true;
}

} // namespace

TEST(FileExists, OnlyRegularFilesExist)
{
    orvexTest::TempDir dir;
    std::string file = dir.Write("a.txt", "x");
    EXPECT_TRUE(FileExists(file.c_str()));
    EXPECT_FALSE(FileExists(dir.Path().c_str()));
    EXPECT_FALSE(FileExists(dir.File("missing").c_str()));
    EXPECT_FALSE(FileExists(nullptr));
}

TEST(FileGetSize, MeasuresFilesAndGivesZeroForTheRest)
{
    orvexTest::TempDir dir;
    EXPECT_EQ(FileGetSize(dir.Write("a.bin", std::string(70000, 'q')).c_str()), 70000u);
    EXPECT_EQ(FileGetSize(dir.Write("empty", "").c_str()), 0u);
    EXPECT_EQ(FileGetSize(dir.File("missing").c_str()), 0u);
    EXPECT_EQ(FileGetSize(dir.Path().c_str()), 0u);
}

TEST(FileLoadText, GivesTheContentWithATerminator)
{
    orvexTest::TempDir dir;
    std::string text = "first line\r\nsecond line\n\xC3\xA9";
    Loaded loaded = Load(dir.Write("t.txt", text));
    ASSERT_TRUE(loaded);
    EXPECT_EQ(std::string(loaded.get()), text);
}

TEST(FileLoadText, GivesNullForMissingEmptyAndDirectories)
{
    orvexTest::TempDir dir;
    EXPECT_FALSE(Load(dir.File("missing")));
    EXPECT_FALSE(Load(dir.Write("empty", "")));
    EXPECT_FALSE(Load(dir.Path()));
    EXPECT_FALSE(FileLoadText(nullptr));
}

TEST(FileLoadText, GivesNullForAnUnreadableFile)
{
    orvexTest::TempDir dir;
    std::string file = dir.Write("secret", "content");
    if (!MakeUnreadable(file)) GTEST_SKIP() << "permissions don't bind this user";
    EXPECT_FALSE(Load(file));
    EXPECT_EQ(FileGetSize(file.c_str()), 0u);
    EXPECT_TRUE(FileExists(file.c_str())); // it can still be examined
}

TEST(FileLoadText, NamedPipeIsNoFileAndDoesNotBlock)
{
    orvexTest::TempDir dir;
    std::string fifo = dir.File("pipe");
    ASSERT_EQ(orvexTest::RunProcess({"/usr/bin/mkfifo", fifo}, 10000).exitCode, 0);
    auto probe = std::async(std::launch::async,
                            [&]
                            {
                                return FileGetSize(fifo.c_str()) == 0 &&
                                       !Loaded(FileLoadText(fifo.c_str())) && !FileExists(fifo.c_str());
                            });
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

TEST(FileSaveText, ReplacesTheWholeFileAndKeepsItsPermissions)
{
    orvexTest::TempDir dir;
    std::string file = dir.Write("out.txt", std::string(1000, 'o'));
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    ASSERT_TRUE(FileSaveText(file.c_str(), "short"));
    EXPECT_EQ(orvexTest::ReadFile(file), "short");
    EXPECT_EQ(fs::status(file).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    EXPECT_EQ(EntryCount(dir.Path()), 1u);
}

TEST(FileSaveText, WritesExactlyTheGivenLength)
{
    orvexTest::TempDir dir;
    std::string file = dir.File("n.bin");
    ASSERT_TRUE(FileSaveText(file.c_str(), "abcdef", 3));
    EXPECT_EQ(orvexTest::ReadFile(file), "abc");
    ASSERT_TRUE(FileSaveText(file.c_str(), "a\0b", 3)); // a NUL inside the length is written
    EXPECT_EQ(orvexTest::ReadFile(file), std::string("a\0b", 3));
}

TEST(FileSaveText, NothingToWriteTouchesNothing)
{
    orvexTest::TempDir dir;
    std::string file = dir.File("none.txt");
    EXPECT_FALSE(FileSaveText(file.c_str(), "", 0));
    EXPECT_FALSE(FileSaveText(file.c_str(), nullptr, 5));
    EXPECT_FALSE(fs::exists(file));
    std::string kept = dir.Write("kept.txt", "old");
    EXPECT_FALSE(FileSaveText(kept.c_str(), ""));
    EXPECT_EQ(orvexTest::ReadFile(kept), "old");
}

TEST(FileSaveText, ImpossiblePathsFailWithoutLeftovers)
{
    orvexTest::TempDir dir;
    EXPECT_FALSE(FileSaveText(dir.File("no/such/folder/f.txt").c_str(), "text"));
    fs::create_directory(dir.File("folder"));
    EXPECT_FALSE(FileSaveText(dir.File("folder").c_str(), "text")); // a directory can't be replaced
    EXPECT_TRUE(fs::is_directory(dir.File("folder")));
    EXPECT_FALSE(FileSaveText("", "text"));
    EXPECT_EQ(EntryCount(dir.Path()), 1u);
}

TEST(FileSaveText, ReadOnlyFolderLeavesTheOldFile)
{
    orvexTest::TempDir dir;
    fs::create_directory(dir.File("ro"));
    std::string file = dir.File("ro/f.txt");
    ASSERT_TRUE(FileSaveText(file.c_str(), "old"));
    fs::permissions(dir.File("ro"), fs::perms::owner_read | fs::perms::owner_exec);
    bool bound = !FileSaveText(file.c_str(), "new");
    fs::permissions(dir.File("ro"), fs::perms::owner_all);
    if (!bound) GTEST_SKIP() << "permissions don't bind this user";
    EXPECT_EQ(orvexTest::ReadFile(file), "old");
    EXPECT_EQ(EntryCount(dir.File("ro")), 1u);
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

TEST(FileSaveText, SavedTextLoadsBackTheSame)
{
    orvexTest::TempDir dir;
    std::string file = dir.File("round.txt");
    std::string text(100000, 'z');
    text[50000] = '\n';
    ASSERT_TRUE(FileSaveText(file.c_str(), text.c_str()));
    Loaded loaded = Load(file);
    ASSERT_TRUE(loaded);
    EXPECT_EQ(std::string(loaded.get()), text);
}
