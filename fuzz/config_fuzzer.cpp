// The configuration document: whatever loads can be saved, and loads again as the same.
#include "fuzz.h"

void fuzz(std::string_view input) {
    if (load_document(std::string(input))) {
        must_save_document();
    }
    nimbrelc_config_free();
}
