#include "common/files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "helpers.h"

namespace {

class nimbrelc_utils : public testing::Test {
protected:
    const temporary_directory directory;
    const std::string file = directory / "file";
    recorded_log log;
};

TEST_F(nimbrelc_utils, reads_what_was_written) {
    const std::string binary("ab\0cd\n", 6);
    ASSERT_TRUE(dump_string_to_file(file.c_str(), "a longer text that must not shine through"));
    ASSERT_TRUE(dump_binary_to_file(file.c_str(), binary));
    EXPECT_EQ(nimbrelc_utils_read_binary_file(file.c_str()), binary);
    EXPECT_EQ(nimbrelc_utils_read_file(file.c_str()), "ab");

    EXPECT_EQ(cmp_file_content(file.c_str(), "ab"), CMP_FILE_EQUAL);
    EXPECT_EQ(cmp_file_content(file.c_str(), "a"), CMP_FILE_DIFFERENT);
    EXPECT_EQ(cmp_file_content((directory / "none").c_str(), "ab"), CMP_FILE_DIFFERENT);
    const std::string steps(3 * 128, 'x');
    ASSERT_TRUE(dump_string_to_file(file.c_str(), steps.c_str()));
    EXPECT_EQ(cmp_file_content(file.c_str(), steps.c_str()), CMP_FILE_EQUAL);
}

// Opened carelessly, each of these hangs or ends the process.
TEST_F(nimbrelc_utils, refuses_what_is_not_a_plain_file) {
    const std::string fifo = directory / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string &target : {fifo, directory.path(), std::string("/dev/zero")}) {
        EXPECT_FALSE(nimbrelc_utils_read_file(target.c_str())) << target;
        EXPECT_NE(errno, 0);
        EXPECT_EQ(cmp_file_content(target.c_str(), "x"), CMP_FILE_ERROR) << target;
        EXPECT_FALSE(dump_string_to_file(target.c_str(), "x")) << target;
        EXPECT_FALSE(dump_binary_to_file(target.c_str(), "x")) << target;
    }
    EXPECT_FALSE(nimbrelc_utils_read_file((directory / "none").c_str()));
    EXPECT_EQ(errno, ENOENT);

    ASSERT_TRUE(dump_string_to_file(file.c_str(), ""));
    EXPECT_FALSE(nimbrelc_utils_read_file(file.c_str()));
    EXPECT_TRUE(log.has("Cannot read data from the file: "));

    ASSERT_EQ(truncate(file.c_str(), off_t{4} << 40), 0);
    EXPECT_FALSE(nimbrelc_utils_read_file(file.c_str()));
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(cmp_file_content(file.c_str(), "x"), CMP_FILE_ERROR);
}

TEST_F(nimbrelc_utils, replaces_a_file_in_one_step) {
    const std::string temporary = file + ".tmp";
    ASSERT_TRUE(dump_string_to_file(temporary.c_str(), "left by an interrupted write"));
    EXPECT_TRUE(safe_dump_string_to_file(file.c_str(), "one"));
    EXPECT_TRUE(log.has("Previous file write failed, proceeding"));
    EXPECT_FALSE(nimbrelc_utils_check_if_file_exists(temporary.c_str()));
    std::filesystem::create_directories(temporary + "/in the way");
    EXPECT_FALSE(safe_dump_string_to_file(file.c_str(), "two"));
    EXPECT_EQ(nimbrelc_utils_read_file(file.c_str()), "one");
}

// Short texts stay in the stream's buffer: only the closing flush sees that there is no room.
TEST_F(nimbrelc_utils, sees_a_write_that_falls_short) {
    ASSERT_TRUE(safe_dump_string_to_file(file.c_str(), "kept"));
    rlimit previous{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &previous), 0);
    const rlimit small = {.rlim_cur = 10, .rlim_max = previous.rlim_max};
    const auto handler = signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const bool whole = safe_dump_string_to_file(file.c_str(), "more than ten bytes");
    const bool binary = dump_binary_to_file((directory / "binary").c_str(), "more than ten bytes");
    setrlimit(RLIMIT_FSIZE, &previous);
    signal(SIGXFSZ, handler);
    EXPECT_FALSE(whole);
    EXPECT_TRUE(binary);
    EXPECT_EQ(nimbrelc_utils_read_file(file.c_str()), "kept");
    EXPECT_EQ(nimbrelc_utils_read_file((file + ".tmp").c_str()), "more than ");
}

TEST_F(nimbrelc_utils, removes_a_tree_but_not_what_its_links_point_to) {
    const std::string outside = directory / "outside";
    const std::string tree = directory / "tree";
    std::filesystem::create_directories(tree + "/a/b");
    ASSERT_TRUE(dump_string_to_file((tree + "/a/b/file").c_str(), "x"));
    ASSERT_TRUE(dump_string_to_file(outside.c_str(), "x"));
    ASSERT_EQ(symlink(outside.c_str(), (tree + "/a/link").c_str()), 0);
    ASSERT_EQ(symlink(directory.path().c_str(), (tree + "/directory link").c_str()), 0);
    EXPECT_EQ(rmrf(tree.c_str()), 0);
    EXPECT_FALSE(nimbrelc_utils_check_if_file_exists(tree.c_str()));
    EXPECT_TRUE(nimbrelc_utils_check_if_file_exists(outside.c_str()));
    EXPECT_NE(rmrf(tree.c_str()), 0);

    EXPECT_NE(rmrf("/proc/self/task"), 0);
    EXPECT_TRUE(log.has("Failed to remove %: /proc/self/task/"));
}

TEST_F(nimbrelc_utils, cuts_and_replaces_text) {
    std::string buffer = "ab";
    size_t capacity = 6;
    EXPECT_TRUE(safe_append_string(buffer, capacity, nullptr));
    EXPECT_FALSE(safe_append_string(buffer, capacity, "as long"));
    EXPECT_TRUE(safe_append_string(buffer, capacity, "cde"));
    EXPECT_EQ(capacity, 6U);
    EXPECT_TRUE(safe_append_string(buffer, capacity, "f"));
    EXPECT_EQ(capacity, 12U);
    EXPECT_EQ(buffer, "abcdef");
    EXPECT_EQ(copy_substring("abc", 1, 10), "bc");
    EXPECT_EQ(copy_substring("abc", 2, 1), std::nullopt);
    EXPECT_EQ(copy_substring("abc", 3, 4), std::nullopt);
    EXPECT_EQ(copy_trim_str("\t a b\r\n"), "a b");
    EXPECT_EQ(copy_replace_str("a-b-c", "-", "++"), "a++b-c");
    EXPECT_EQ(nimbrelc_utils_escape_quotes("say \"\\\""), "say \\\"\\\\\"");
    EXPECT_EQ(nimbrelc_utils_printable("a\nb\x7F\x1F \xC3\xA9"), "a_b__ \xC3\xA9");
}

TEST_F(nimbrelc_utils, takes_date_times_as_local) {
    const char *previous = getenv("TZ");
    const std::string zone = nimbrelc_utils_empty_if_null(previous);
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    // 11:00 UTC, in winter and in summer.
    EXPECT_EQ(parse_datetime("2024-01-15T12:00:00Z"), 1705316400);
    EXPECT_EQ(parse_datetime("2024-07-15T13:00:00Z"), 1721041200);
    EXPECT_EQ(print_datetime(1705316400), "2024-01-15T12:00:00Z");
    EXPECT_EQ(print_datetime(1721041200), "2024-07-15T13:00:00Z");
    previous == nullptr ? unsetenv("TZ") : setenv("TZ", zone.c_str(), 1);
    tzset();

    EXPECT_EQ(print_datetime(time_t{400000000000}), std::nullopt);  // a year of five digits
    for (const char *text : {"", "2024-05-01", "2024-05-01 13:07:42", "2024-13-01T13:07:42Z"}) {
        EXPECT_FALSE(is_datetime(text)) << text;
        EXPECT_EQ(parse_datetime(text), -1) << text;
    }
}

}  // namespace
