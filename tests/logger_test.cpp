#include "logger.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

constexpr const char *log_category = "ssh";

std::string syslog_log;  // what the system log would show, with its opening and closing

}  // namespace

// The program's own definitions come before the C library's.
extern "C" {
void openlog(const char *ident, int, int) {
    syslog_log += std::string("[open ") + ident + "]";
}
void closelog() {
    syslog_log += "[close]";
}
void syslog(int priority, const char *format, ...) {
    char text[8192];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    syslog_log += std::to_string(priority) + text + "\n";
}
}

namespace {

std::vector<std::string> events;

const custom_logger recorder = {
    [] { events.emplace_back("on"); },
    [] { events.emplace_back("off"); },
    [](const char *, int, const char *text, const char *, size_t) { events.emplace_back(text); },
    [](const char *key, const char *value) { events.push_back(std::string(key) + "=" + value); },
};

std::string content(const std::string &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

class logger : public testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/logger_test.XXXXXX";
        directory = mkdtemp(pattern);
        reset();
    }
    void TearDown() override {
        reset();
        std::filesystem::remove_all(directory);
    }

    static void reset() {
        logger_set_custom_logger(nullptr);
        logger_init("level=debug:lineandfile=no:rollingfile=no:syslog.ident=unknown");
        events.clear();
        syslog_log.clear();
    }

    // Configures a recording logger and drops what configuring it recorded.
    static void record(const char *config) {
        logger_init(config);
        logger_set_custom_logger(&recorder);
        events.clear();
    }

    // The messages that pass, each logged once at every level.
    static std::string passing() {
        events.clear();
        LOG_TRACE("T");
        LOG_DEBUG("D");
        LOG_INFO("I");
        LOG_WARN("W");
        LOG_ERROR("E");
        std::string passed;
        for (const std::string &line : events) {
            passed += line[line.size() - 2];
        }
        return passed;
    }

    std::string directory;
};

TEST_F(logger, filters_by_category_and_level) {
    const struct {
        const char *config;
        const char *passed;
    } rows[] = {
        {"", ""},
        {"enabled=yes", "DIWE"},
        {"enabled=Yes", ""},
        {"enabled=true:level=WaRn", "WE"},
        {"enabled=true:level=verbose", ""},
        {"enabled=true:level=error:category.ssh=debug:category.vpn=trace", "DIWE"},
        {"enabled=true:category.ssh=error:category.ssh=trace", "TDIWE"},
        {"enabled=true:category.ssh=error:category.sshd=trace:Category.ssh=trace", "E"},
        {"rollingfile=yes", ""},
        {"::enabled=true::level:=:cat=trace:level=info:", "IWE"},
        {"category.ssh=trace:enabled=false:enabled=true:level=info", "IWE"},
    };
    for (const auto &row : rows) {
        reset();
        record(row.config);
        EXPECT_EQ(passing(), row.passed) << row.config;
    }
    logger_init(nullptr);
    EXPECT_EQ(passing(), "IWE");
    // Lookups reorder the categories.
    record("enabled=true:category.ssh=warn:category.b=error:category.ssh=trace:category.c=error");
    for (const char *other : {"b", "c", "ssh", "b"}) {
        _log(other, LOG_LEVEL_INFO, "", 0, "x");
        EXPECT_EQ(passing(), "TDIWE") << other;
    }
}

TEST_F(logger, formats_the_line) {
    record("enabled=true");
    LOG_INFO("Stopping %s", "ssh.");
    ASSERT_EQ(events.size(), 1U);
    struct tm parsed {};
    const char *rest = strptime(events[0].c_str(), "%Y-%m-%d %H:%M:%S", &parsed);
    ASSERT_NE(rest, nullptr);
    EXPECT_EQ(rest[0], '.');
    EXPECT_EQ(events[0].substr(23), "  INFO ssh - Stopping ssh.\n");
    logger_set_parameter("lineandfile", "true");
    events.clear();
    _log("vpn", LOG_LEVEL_ERROR, "a.cpp", 7, "x");
    EXPECT_EQ(events[0].substr(24), "ERROR file: a.cpp, line: 7 - vpn - x\n");
}

TEST_F(logger, hooks_follow_the_configuration) {
    logger_set_custom_logger(&recorder);
    logger_init("enabled=true:category.ssh=info:cat=x:unknown=1=2:nothing");
    EXPECT_EQ(events, (std::vector<std::string>{"off", "on", "enabled=true", "ssh=info", "=x",
                                                "unknown=1=2", "on"}));
    events.clear();
    logger_set_parameter("enabled", "false");
    EXPECT_EQ(events, (std::vector<std::string>{"off", "off", "enabled=false"}));
}

TEST_F(logger, syslog_connection_and_ident) {
    logger_enable_syslog("nimbrelc", LOG_LEVEL_INFO);
    EXPECT_EQ(syslog_log, "");
    logger_init("syslog=yes");
    logger_set_parameter("syslog.ident", "other");
    LOG_DEBUG("below the kept threshold");
    LOG_INFO("a");
    LOG_ERROR("b");
    EXPECT_EQ(syslog_log, "[close][open nimbrelc]5 INFO ssh - a\n3ERROR ssh - b\n");
    syslog_log.clear();
    logger_init("stdout=no");
    EXPECT_EQ(syslog_log, "[close][close]");
}

TEST_F(logger, syslog_reads_no_argument_that_is_not_there) {
    logger_init(("syslog=yes:file=yes:file.name=" + directory + "/missing/log").c_str());
    const struct {
        const char *message;
        const char *shown;
    } rows[] = {
        {"100%", "100%"},
        {"%s%n %5d %.3s %-m %ld%", "%s%n %5d %.3s %-m %ld%"},
        {"100%% of %%s, %%%d", "100% of %s, %%d"},
        {"%m", "Permission denied"},
    };
    for (const auto &row : rows) {
        syslog_log.clear();
        errno = EACCES;
        LOG_WARN("%s", row.message);
        EXPECT_EQ(errno, EACCES);
        EXPECT_EQ(syslog_log, std::string("4 WARN ssh - ") + row.shown + "\n");
    }
    syslog_log.clear();
    LOG_WARN("%s", std::string(9000, '%').c_str());
    EXPECT_GT(syslog_log.size(), 3000U);
}

TEST_F(logger, long_lines_are_cut_and_still_end) {
    const std::string path = directory + "/log";
    logger_init(("file=yes:file.name=" + path).c_str());
    LOG_INFO("%s", std::string(20000, 'x').c_str());
    _log(std::string(9000, 'c').c_str(), LOG_LEVEL_INFO, "", 0, "no room");
    LOG_INFO("next");
    const std::string text = content(path);
    ASSERT_GT(text.size(), 16000U);
    EXPECT_EQ(text.substr(7998, 2), "x\n");
    EXPECT_EQ(text.substr(15998, 2), "c\n");
    EXPECT_EQ(text.substr(text.size() - 11), "ssh - next\n");
}

TEST_F(logger, rolling_files_shift_beyond_the_limit) {
    const std::string base = directory + "/new/box.";
    const std::string config =
        "enabled=true:rollingfile=yes:rollingfile.name=box:rollingfile.count=3:rollingfile.path=" +
        directory + "/new";
    logger_init(config.c_str());
    LOG_INFO("1");
    const std::string size = std::to_string(content(base + "0.log").size());
    logger_set_parameter("rollingfile.size", (std::to_string(2 * std::stoi(size))).c_str());
    LOG_INFO("2");
    LOG_INFO("3");  // the file is exactly at the limit: not yet
    EXPECT_FALSE(std::filesystem::exists(base + "1.log"));
    logger_set_parameter("rollingfile.size", size.c_str());
    for (const char *message : {"4", "5", "6", "7", "8", "9"}) {
        LOG_INFO("%s", message);
    }
    const auto last = [&](const char *index) {
        const std::string text = content(base + index + ".log");
        return text.size() < 2 ? '-' : text[text.size() - 2];
    };
    EXPECT_EQ(last("0"), '9');
    EXPECT_EQ(last("1"), '7');
    EXPECT_EQ(last("2"), '5');
    EXPECT_EQ(last("3"), '-');

    logger_set_parameter("rollingfile.count", "1");
    LOG_INFO("a");
    LOG_INFO("b");
    LOG_INFO("c");
    EXPECT_EQ(content(base + "0.log").size(), std::stoul(size));
    EXPECT_EQ(last("1"), '7');
}

}  // namespace
