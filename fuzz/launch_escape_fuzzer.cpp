// Escaped values in a command line: a real shell reads each back literally, and outside of quotes
// splits it at its blanks and at nothing else.
#include "platform/launch_escape.h"

#include "fuzz.h"
#include "platform/launch.h"

void fuzz(std::string_view input) {
    std::string command = "printf '<%s>\\0'";
    std::string expected;
    for (const std::string &value : fields(input, 16)) {
        command += " \"" + launch_escape_quoted(value) + "\" " + launch_escape_unquoted(value);
        expected += "<" + value + ">" + '\0';
        std::string_view rest = value;
        while (rest.find_first_not_of(" \t") != std::string_view::npos) {
            rest.remove_prefix(rest.find_first_not_of(" \t"));
            const std::string_view word = rest.substr(0, rest.find_first_of(" \t"));
            expected += "<" + std::string(word) + ">" + '\0';
            rest.remove_prefix(word.size());
        }
    }
    int status = -1;
    std::string output;
    must(launch_succeeded(launch(command.c_str(), &status, &output), status),
         "the shell understands the line");
    must(output == expected, "the shell reads the values as they were");
}
