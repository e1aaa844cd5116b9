// Merging of documents, and dotted paths: source, target, path.
#include <cstring>

#include "fuzz.h"

namespace {

void must_be_merged(const cJSON *source, const cJSON *before, const cJSON *after) {
    const cJSON *was = before->child;
    for (const cJSON *is = after->child; is != nullptr; is = is->next, was = was->next) {
        must(was != nullptr && strcmp(was->string, is->string) == 0, "a target keeps its members");
        const cJSON *stored = cJSON_GetObjectItem(source, was->string);
        must(cJSON_IsObject(was) == cJSON_IsObject(is) || cJSON_IsNull(was), "a section stays one");
        if (cJSON_IsObject(was)) {
            must_be_merged(cJSON_IsObject(stored) ? stored : nullptr, was, is);
        } else {
            must(print(is) == print(was) || print(is) == print(stored),
                 "a value is the target's or the source's");
        }
    }
    must(was == nullptr, "a target loses no member");
}

}  // namespace

void fuzz(std::string_view input) {
    const std::vector<std::string> texts = fields(input, 3);
    const json_ptr source = parse(texts[0]);
    const json_ptr target = parse(texts[1]);
    const json_ptr merged(cJSON_Duplicate(target.get(), true));
    nimbrelc_utils_copy_values_to_json(source.get(), merged.get(), false);
    must_read_back(merged.get());
    if (cJSON_IsObject(target.get())) {
        must_be_merged(cJSON_IsObject(source.get()) ? source.get() : nullptr, target.get(),
                       merged.get());
    }
    if (json_replace(merged.get(), texts[2], parse("[1]"))) {
        must(print(nimbrelc_utils_get_json_object(merged.get(), texts[2], nullptr)) == "[1]",
             "what was put at a path is there");
        must(nimbrelc_utils_remove_json_object(merged.get(), texts[2]), "what is there can go");
        must_read_back(merged.get());
    }
}
