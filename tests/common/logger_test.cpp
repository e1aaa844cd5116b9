#include "common/logger.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "helpers.h"

namespace {

constexpr const char *log_category = "ssh";

std::string syslog_log;  // what the system log would show, with its opening and closing

void show(int priority, const char *text) {
    syslog_log += std::to_string(priority) + text + "\n";
}

}  // namespace

// The program's own definitions come before the C library's.
extern "C" {
void openlog(const char *ident, int, int) {
    syslog_log += std::string("[open ") + ident + "]";
}
void closelog() {
    syslog_log += "[close]";
}
void syslog(int priority, const char *text, ...) {
    show(priority, text);
}
// What a hardened build calls in its place.
void __syslog_chk(int priority, int, const char *text, ...) {
    show(priority, text);
}
}

namespace {

std::string events;

const custom_logger recorder = {
    [] { events += "on "; },
    [] { events += "off "; },
    [](const char *, int, const char *text, const char *, size_t) { events += text; },
    [](const char *key, const char *value) { events += std::string(key) + "=" + value + " "; },
};

class logger : public testing::Test {
protected:
    void SetUp() override {
        logger_init("level=debug");
        logger_set_custom_logger(&recorder);
        events.clear();
        syslog_log.clear();
    }
    void TearDown() override {
        logger_set_custom_logger(nullptr);
        logger_init("lineandfile=no:rollingfile=no:syslog.ident=unknown");
    }

    // The levels whose messages pass.
    static std::string passing() {
        std::string passed;
        for (int level = LOG_LEVEL_TRACE; level <= LOG_LEVEL_ERROR; ++level) {
            events.clear();
            _log(log_category, level, "", 0, "x");
            passed += events.empty() ? "" : std::string(1, "TDIWE"[level]);
        }
        return passed;
    }

    const temporary_directory directory;
};

TEST_F(logger, filters_by_category_and_level) {
    const std::pair<const char *, const char *> rows[] = {
        {"", ""},
        {"enabled=yes", "DIWE"},
        {"enabled=Yes", ""},
        {"enabled=true:level=WaRn", "WE"},
        {"enabled=true:level=verbose", ""},
        {"enabled=true:level=error:category.ssh=debug:category.vpn=trace", "DIWE"},
        {"enabled=true:category.ssh=error:category.sshd=trace:Category.ssh=trace", "E"},
        {"::enabled=true::level:=:cat=trace:level=info:", "IWE"},
        {"enabled=true:category.ssh=warn:category.b=error:category.ssh=trace:category.c=error",
         "TDIWE"},
    };
    for (const auto &[config, passed] : rows) {
        logger_init("level=debug");
        logger_init(config);
        EXPECT_EQ(passing(), passed) << config;
    }
    for (const char *other : {"b", "c", "ssh", "b"}) {  // lookups reorder the categories
        _log(other, LOG_LEVEL_INFO, "", 0, "x");
        EXPECT_EQ(passing(), "TDIWE") << other;
    }
}

TEST_F(logger, formats_the_line_and_tells_its_hooks) {
    logger_init("enabled=true:category.ssh=info:cat=x:unknown=1=2:nothing");
    EXPECT_EQ(events, "off on enabled=true ssh=info =x unknown=1=2 on ");
    events.clear();
    LOG_INFO("Stopping %s", "ssh.");
    EXPECT_TRUE(std::regex_match(events, std::regex(R"(\d{4}(-\d\d){2} \d\d(:\d\d){2}\.\d{3} )"
                                                    R"( INFO ssh - Stopping ssh\.\n)")));
    logger_set_parameter("lineandfile", "true");
    events.clear();
    _log("vpn", LOG_LEVEL_ERROR, "a.cpp", 7, "x");
    EXPECT_EQ(events.substr(24), "ERROR file: a.cpp, line: 7 - vpn - x\n");
    events.clear();
    logger_set_parameter("enabled", "false");
    EXPECT_EQ(events, "off off enabled=false ");
}

TEST_F(logger, syslog_connection_and_ident) {
    logger_enable_syslog("nimbrelc", LOG_LEVEL_INFO);
    EXPECT_EQ(syslog_log, "");
    logger_init("syslog=yes");
    logger_set_parameter("syslog.ident", "other");
    LOG_DEBUG("below the kept threshold");
    LOG_INFO("a");
    LOG_ERROR("b");
    logger_init("stdout=no");
    EXPECT_EQ(syslog_log, "[close][open nimbrelc]5 INFO ssh - a\n3ERROR ssh - b\n[close][close]");
}

TEST_F(logger, long_lines_are_cut_and_still_end) {
    const std::string path = directory / "log";
    logger_init(("file=yes:file.name=" + path).c_str());
    LOG_INFO("%s", std::string(20000, 'x').c_str());
    _log(std::string(9000, 'c').c_str(), LOG_LEVEL_INFO, "", 0, "no room");
    LOG_INFO("next");
    const std::string text = content(path);
    ASSERT_GT(text.size(), 16000U);
    EXPECT_EQ(text.substr(7998, 2) + text.substr(15998, 2), "x\nc\n");
    EXPECT_TRUE(text.ends_with("ssh - next\n"));
}

TEST_F(logger, rolling_files_shift_beyond_the_limit) {
    const std::string path = directory / "new";
    logger_init(
        ("rollingfile=yes:rollingfile.name=box:rollingfile.count=3:rollingfile.path=" + path)
            .c_str());
    const auto last = [&](int index) {
        const std::string text = content(path + "/box." + std::to_string(index) + ".log");
        return text.size() < 2 ? '-' : text[text.size() - 2];
    };
    logger_set_parameter("enabled", "true");
    LOG_INFO("1");
    const std::string size = std::to_string(content(path + "/box.0.log").size());
    logger_set_parameter("rollingfile.size", size.c_str());
    for (int message = 2; message < 10; ++message) {
        LOG_INFO("%d", message);
        EXPECT_EQ(last(1) == '-', message == 2);  // exactly at the limit: not yet
    }
    for (int index = 0; index < 4; ++index) {
        EXPECT_EQ(last(index), "986-"[index]);
    }
}

}  // namespace
