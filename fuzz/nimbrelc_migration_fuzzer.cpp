// The start-up migration: document, installed version, legacy and default document. A failure
// leaves the document as it is, and a second migration finds nothing to do.
#include "fuzz.h"
#include "migration/migration.h"

void fuzz(std::string_view input) {
    const char *document = get_nimbrelc_config_file_location();
    const char *const paths[] = {document, "/etc/version", "/media/config.json",
                                 "/opt/app/default_config/nimbrelc.json"};
    std::vector<std::string> texts = fields(input, std::size(paths));
    texts[1] = texts[1].empty() ? "08.05.09" : texts[1];
    for (size_t i = 0; i < texts.size(); ++i) {
        std::filesystem::remove(paths[i]);
        if (!texts[i].empty()) {
            std::ofstream(paths[i]) << texts[i];
        }
    }
    const bool migrated = run_nimbrelc_migration();
    const std::string left = content(document);
    must(migrated || left == texts[0], "a failed migration leaves the document");
    must(!migrated || parse(left) != nullptr, "a migrated document parses");
    must(run_nimbrelc_migration() == migrated, "a second migration goes as the first one");
    must(content(document) == left, "a second migration changes nothing");
}
