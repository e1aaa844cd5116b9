// Merging of documents, and dotted paths: source, target, path.
#include "fuzz.h"

void fuzz(std::string_view input) {
    const std::vector<std::string> texts = fields(input, 3);
    const json_ptr source = parse(texts[0]);
    const json_ptr merged = parse(texts[1]);
    nimbrelc_utils_copy_values_to_json(source.get(), merged.get(), false);
    must_read_back(merged.get());
    if (json_replace(merged.get(), texts[2], parse("[1]"))) {
        must(print(nimbrelc_utils_get_json_object(merged.get(), texts[2], nullptr)) == "[1]",
             "what was put at a path is there");
        must(nimbrelc_utils_remove_json_object(merged.get(), texts[2]), "what is there can go");
        must_read_back(merged.get());
    }
}
