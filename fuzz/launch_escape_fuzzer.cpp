// Escaped values in a command line: each shell that a box may have reads them back literally, and
// outside of quotes splits them at their blanks and at nothing else.
#include "platform/launch.h"

#include "fuzz.h"

void fuzz(std::string_view input) {
    std::string command = "printf '<%s>\\0'";
    std::string expected;
    const auto expect = [&expected](std::string_view word) {
        expected.append("<").append(word).append(">").push_back('\0');
    };
    for (const std::string &value : fields(input, 16)) {
        command += " \"" + launch_escape_quoted(value) + "\" " + launch_escape_unquoted(value);
        expect(value);
        std::string_view rest = value;
        while (!rest.empty()) {
            const std::string_view word = rest.substr(0, rest.find_first_of(" \t"));
            rest.remove_prefix(std::min(word.size() + 1, rest.size()));
            if (!word.empty()) {
                expect(word);
            }
        }
    }
    std::ofstream("/media/script") << command;
    for (const char *shell : {"dash", "bash --posix", "bash", "busybox sh"}) {
        std::string output;
        must(launch_succeeds(&output, "%s /media/script", shell), "it is one command");
        must(output == expected, "the shell reads the values as they were");
    }
}
