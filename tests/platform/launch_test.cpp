#include "platform/launch.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>

#include "helpers.h"

namespace {

class launcher : public testing::Test {
protected:
    void TearDown() override {
        EXPECT_EQ(open_descriptors(), descriptors);
    }

    // In a shell, directly; gets the text when there is one.
    int run(const char *script, const char *text = nullptr) {
        const char *const argv[] = {"/bin/sh", "-c", script, nullptr};
        return text == nullptr ? launch_one(argv, &status) : launch_and_write(argv, &status, text);
    }

    const size_t descriptors = open_descriptors();
    recorded_log log;
    int status = 0;
    std::string output = "old";
};

TEST_F(launcher, output_that_nobody_wants) {
    EXPECT_EQ(launch("sleep 0.05; echo done || exit 5", &status, nullptr), LAUNCH_OK);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(launch("exec yes", &status, nullptr), LAUNCH_SHELL_ERROR);  // more than a pipe holds
    // A process left behind with the pipe in its hands is not waited for.
    const temporary_directory directory;
    const std::string script = "(sleep 1; cd " + directory.path() + " && touch late) 2>&- & exit 0";
    EXPECT_EQ(launch(script.c_str(), &status, nullptr), LAUNCH_OK);
    EXPECT_FALSE(std::filesystem::exists(directory / "late"));
    EXPECT_EQ(launch("while echo; do sleep 0.02; done & exit 0", &status, nullptr), LAUNCH_OK);
}

TEST_F(launcher, shell_results) {
    EXPECT_EQ(launch("printf out; exit 3", &status, &output), LAUNCH_OK);
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_EQ(output, "out");
    EXPECT_EQ(launch("seq 100000", nullptr, &output), LAUNCH_OK);
    EXPECT_EQ(output.size(), 588895U);
    EXPECT_EQ(log.text, "");

    status = -1;
    EXPECT_EQ(launch("printf out; kill -TERM $$", &status, &output), LAUNCH_SHELL_ERROR);
    EXPECT_EQ(output, "out");
    EXPECT_EQ(launch(nullptr, &status, &output), LAUNCH_NO_COMMAND);
    EXPECT_EQ(status, -1);
    EXPECT_EQ(log.text,
              "ERROR launch - Command hasn't terminated normally - probably unexpected signal\n"
              "ERROR launch - Command can't be NULL\n");
    EXPECT_EQ(launch(std::string(3000000, 'x').c_str(), &status, &output), LAUNCH_SHELL_ERROR);
}

TEST_F(launcher, formatted_command_lines) {
    const std::string value(20000, 'v');
    EXPECT_EQ(launch_with_args("printf '%s%d' %c", &status, &output, value.c_str(), 7, 'x'),
              LAUNCH_OK);
    EXPECT_EQ(output, value + "7");
    EXPECT_EQ(launch_with_args("%ls", &status, &output, L"\xd800"), LAUNCH_ERROR);
}

TEST_F(launcher, direct_executions) {
    setenv("LAUNCH_TEST", "set", 1);
    EXPECT_EQ(run("exit 5$LAUNCH_TEST"), LAUNCH_OK);  // an empty environment
    EXPECT_EQ(WEXITSTATUS(status), 5);
    EXPECT_EQ(run("(sleep 0.2; kill -CONT $$) & kill -STOP $$; exit 4"), LAUNCH_OK);
    EXPECT_EQ(WEXITSTATUS(status), 4);
    EXPECT_EQ(run("kill -KILL $$"), LAUNCH_ERROR);
    EXPECT_EQ(WEXITSTATUS(status), 4);
    EXPECT_EQ(log.text, "");
    const char *const missing[] = {"/nonexistent", nullptr};
    EXPECT_EQ(launch_one(missing, &status), LAUNCH_OK);
    EXPECT_EQ(WEXITSTATUS(status), 1);
}

TEST_F(launcher, text_reaches_the_child) {
    // Exits with what stands behind the last "x": exactly the text's end.
    std::string text(300000, 'x');
    text.replace(299997, 3, "100");
    EXPECT_EQ(run("exit $(/usr/bin/tail -c +299998)", text.c_str()), LAUNCH_OK);
    EXPECT_EQ(WEXITSTATUS(status), 100);
    // The child's own broken pipes still end it.
    EXPECT_EQ(run("kill -PIPE $$", ""), LAUNCH_ERROR);
}

TEST_F(launcher, text_for_a_child_that_is_gone) {
    const std::string text(1000000, 'x');
    for (const char *script : {"exit 0", "exec <&-; sleep 0.5", "exit 0"}) {
        log.text.clear();
        status = -1;
        EXPECT_EQ(run(script, text.c_str()), LAUNCH_ERROR);
        EXPECT_EQ(status, -1);
        EXPECT_EQ(log.text, "ERROR launch - write failed: Broken pipe\n");
    }
    struct sigaction action {};
    sigaction(SIGPIPE, nullptr, &action);
    EXPECT_EQ(action.sa_handler, SIG_DFL);
    // The next launches collect what was left.
    EXPECT_EQ(launch("sleep 1", nullptr, nullptr), LAUNCH_OK);
    EXPECT_EQ(launch("exit 0", nullptr, nullptr), LAUNCH_OK);
    EXPECT_LE(waitpid(-1, nullptr, WNOHANG), 0);
}

}  // namespace
