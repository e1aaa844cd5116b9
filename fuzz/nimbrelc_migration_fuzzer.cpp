// The start-up migration, on files of its own: document, installed version, legacy document,
// default document. A failure leaves the document as it is, and a second migration finds nothing to
// do.
#include "fuzz.h"
#include "migration/migration.h"

namespace {

constexpr const char *document = "/media/nimbrelc.json";

void put(const char *path, const std::string &text) {
    std::filesystem::remove(path);
    if (!text.empty()) {
        std::ofstream(path) << text;
    }
}

}  // namespace

void fuzz(std::string_view input) {
    std::filesystem::create_directories("/opt/app/default_config");
    const std::vector<std::string> texts = fields(input, 4);
    put(document, texts[0]);
    put("/etc/version", texts[1].empty() ? "08.05.09" : texts[1]);
    put("/media/config.json", texts[2]);
    put("/opt/app/default_config/nimbrelc.json", texts[3]);
    const bool migrated = run_nimbrelc_migration();
    const std::string left = content(document);
    if (!migrated) {
        must(left == texts[0], "a failed migration leaves the document");
        return;
    }
    must(parse(left) != nullptr, "a migrated document parses");
    must(run_nimbrelc_migration(), "a migrated document migrates again");
    must(content(document) == left, "a second migration changes nothing");
}
