#include "common/files.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>

#include "helpers.h"

namespace {

class files : public testing::Test {
protected:
    const temporary_directory directory;
    const std::string file = directory / "file";
    const std::string none = directory / "none";
    recorded_log log;
};

TEST_F(files, reads_what_was_written) {
    const std::string binary("ab\0cd\n", 6);
    ASSERT_TRUE(dump_string_to_file(file.c_str(), "a longer text that must not shine through"));
    ASSERT_TRUE(dump_binary_to_file(file.c_str(), binary));
    EXPECT_EQ(nimbrelc_utils_read_binary_file(file.c_str()), binary);
    EXPECT_EQ(nimbrelc_utils_read_file(file.c_str()), "ab");
    EXPECT_EQ(cmp_file_content(file.c_str(), "ab"), CMP_FILE_EQUAL);
    EXPECT_EQ(cmp_file_content(file.c_str(), "a"), CMP_FILE_DIFFERENT);
    EXPECT_EQ(cmp_file_content(none.c_str(), "ab"), CMP_FILE_DIFFERENT);
    const std::string steps(3 * 128, 'x');
    ASSERT_TRUE(dump_string_to_file(file.c_str(), steps.c_str()));
    EXPECT_EQ(cmp_file_content(file.c_str(), steps.c_str()), CMP_FILE_EQUAL);
}

// Opened carelessly, each of these hangs or ends the process.
TEST_F(files, refuses_what_is_not_a_plain_file) {
    const std::string fifo = directory / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string &target : {fifo, directory.path(), std::string("/dev/zero")}) {
        EXPECT_FALSE(nimbrelc_utils_read_file(target.c_str())) << target;
        EXPECT_NE(errno, 0);
        EXPECT_EQ(cmp_file_content(target.c_str(), "x"), CMP_FILE_ERROR) << target;
        EXPECT_FALSE(dump_string_to_file(target.c_str(), "x")) << target;
        EXPECT_FALSE(dump_binary_to_file(target.c_str(), "x")) << target;
    }
    EXPECT_FALSE(nimbrelc_utils_read_file(none.c_str()));
    EXPECT_EQ(errno, ENOENT);
    ASSERT_TRUE(dump_string_to_file(file.c_str(), ""));
    EXPECT_FALSE(nimbrelc_utils_read_file(file.c_str()));
    EXPECT_TRUE(log.has("Cannot read data from the file: "));
    ASSERT_EQ(truncate(file.c_str(), off_t{4} << 40), 0);
    EXPECT_FALSE(nimbrelc_utils_read_file(file.c_str()));
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(cmp_file_content(file.c_str(), "x"), CMP_FILE_ERROR);
}

// Short texts stay in the stream's buffer: only the closing flush sees that there is no room.
TEST_F(files, replaces_a_file_in_one_step_or_not_at_all) {
    const std::string temporary = file + ".tmp";
    ASSERT_TRUE(dump_string_to_file(temporary.c_str(), "left by an interrupted write"));
    ASSERT_TRUE(safe_dump_string_to_file(file.c_str(), "kept"));
    EXPECT_TRUE(log.has("Previous file write failed, proceeding"));
    EXPECT_FALSE(nimbrelc_utils_check_if_file_exists(temporary.c_str()));

    rlimit previous{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &previous), 0);
    const rlimit small = {.rlim_cur = 10, .rlim_max = previous.rlim_max};
    const auto handler = signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const bool whole = safe_dump_string_to_file(file.c_str(), "more than ten bytes");
    const bool binary = dump_binary_to_file(none.c_str(), "more than ten bytes");
    setrlimit(RLIMIT_FSIZE, &previous);
    signal(SIGXFSZ, handler);
    EXPECT_FALSE(whole);
    EXPECT_TRUE(binary);
    EXPECT_EQ(nimbrelc_utils_read_file(temporary.c_str()), "more than ");

    std::filesystem::remove(temporary);
    std::filesystem::create_directories(temporary + "/in the way");
    EXPECT_FALSE(safe_dump_string_to_file(file.c_str(), "two"));
    EXPECT_EQ(nimbrelc_utils_read_file(file.c_str()), "kept");
}

TEST_F(files, removes_a_tree_but_not_what_its_links_point_to) {
    const std::string tree = directory / "tree";
    std::filesystem::create_directories(tree + "/a/b");
    ASSERT_TRUE(dump_string_to_file(file.c_str(), "x"));
    std::filesystem::create_symlink(directory.path(), tree + "/a/b/link");
    EXPECT_EQ(rmrf(tree.c_str()), 0);
    EXPECT_FALSE(nimbrelc_utils_check_if_file_exists(tree.c_str()));
    EXPECT_TRUE(nimbrelc_utils_check_if_file_exists(file.c_str()));
    EXPECT_NE(rmrf("/proc/self/task"), 0);
    EXPECT_TRUE(log.has("Failed to remove %: /proc/self/task/"));
}

}  // namespace
