// The configuration document: whatever loads can be saved, and loads again as the same.
#include "fuzz.h"

void fuzz(std::string_view input) {
    const char *path = get_nimbrelc_config_file_location();
    std::ofstream(path) << input;
    if (nimbrelc_config_load(path)) {
        const std::string loaded = text_of(get_config_root());
        must(nimbrelc_config_save(), "a document can be saved");
        must(nimbrelc_config_load(path), "a saved document loads");
        must(text_of(get_config_root()) == loaded, "a saved document loads as it was");
    }
    nimbrelc_config_free();
}
