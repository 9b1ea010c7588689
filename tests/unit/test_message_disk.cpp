// The message file on a real disk.

#include <filesystem>
#include <sys/stat.h>

#include "captured_log.h"
#include "file_size_limit.h"
#include "stored_messages.h"
#include "temporary_folder.h"

namespace fs = std::filesystem;

class MessageDisk : public ::testing::Test {
protected:
    void SetUp() override
    {
        forget_store();
        load_messages(path.c_str());
    }
    void TearDown() override
    {
        forget_store();
    }
    int save()
    {
        return save_messages(path.c_str());
    }
    struct stat status()
    {
        struct stat found = {};
        stat(path.c_str(), &found);
        return found;
    }

    TemporaryFolder folder;
    const std::string path = folder / "in_messages";
};

TEST_F(MessageDisk, AppendsToTheFileAndReplacesIt)
{
    ASSERT_EQ(save(), 0);
    struct stat first = status();
    EXPECT_EQ(first.st_size, 4);
    EXPECT_EQ(first.st_mode & 0777, 0600u);
    add({.sender = "1"});
    add({.sender = "2"});
    ASSERT_EQ(save(), 0);
    EXPECT_EQ(status().st_ino, first.st_ino);
    add({.text = "a", .sender = "3", .index = 1, .total = 2});
    ASSERT_EQ(save(), 0);
    add({.text = "b", .sender = "3", .index = 2, .total = 2});
    ASSERT_EQ(save(), 0);
    EXPECT_EQ(std::distance(fs::directory_iterator(folder.path), {}), 1) << "no temporary file is left";
    auto before = stored();
    forget_store();
    EXPECT_EQ(load_messages(path.c_str()), 0);
    EXPECT_EQ(stored(), before);
    EXPECT_EQ(before.back(), "3 1=a 2=b +");
}

TEST_F(MessageDisk, AFullDiskLeavesTheOldFile)
{
    add({.sender = "1"});
    ASSERT_EQ(save(), 0);
    auto size = status().st_size;
    add({.sender = "2"});
    {
        FileSizeLimit limit(static_cast<rlim_t>(size) + 10);
        EXPECT_EQ(save(), -1);
    }
    EXPECT_FALSE(messages_on_disk());
    EXPECT_EQ(status().st_size, size);
    EXPECT_FALSE(fs::exists(path + ".tmp"));
    ASSERT_EQ(save(), 0);
    EXPECT_TRUE(messages_on_disk());
    EXPECT_GT(status().st_size, size);
}

TEST_F(MessageDisk, FollowsNoLinkOfItsTemporaryFile)
{
    folder.write("other", "kept");
    fs::create_symlink("other", path + ".tmp");
    add({.sender = "1"});
    ASSERT_EQ(save(), 0);
    EXPECT_EQ(folder.content("other"), "kept");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(path)));
}

TEST_F(MessageDisk, WhatIsNoFile)
{
    EXPECT_EQ(load_messages(folder.path.c_str()), -1);
    EXPECT_EQ(load_messages((path + "/below").c_str()), 0);
    const std::string pipe = folder / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(load_messages(pipe.c_str()), 0) << "and does not wait for a writer";
    EXPECT_EQ(save_messages((folder / "none/file").c_str()), 0) << "the folder is made";
    EXPECT_EQ(save_messages((folder / "no/folder/file").c_str()), -1);
    EXPECT_EQ(save_messages((folder / std::string(5000, 'x')).c_str()), -1);
}
