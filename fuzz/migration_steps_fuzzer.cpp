// Every migration step on any document; those of this product find nothing left to do.
#include "migration/migration_steps.h"

#include "fuzz.h"

void fuzz(std::string_view input) {
    const json_ptr original = parse(std::string(input));
    const bool repeatable = !has_twins(original.get());
    for (const auto step :
         {kq3_upgrade_from_08_04_99_to_08_05_01, kq3_upgrade_from_08_05_08_to_08_05_09}) {
        const json_ptr document(cJSON_Duplicate(original.get(), true));
        must(step(document.get()), "a step succeeds");
        must_read_back(document.get());
        const std::string migrated = print(document);
        step(document.get());
        must(!repeatable || print(document) == migrated, "a second run of a step changes nothing");
    }
    for (const auto step : {upgrade_from_07_70_13_to_07_70_14, upgrade_from_07_71_99_to_07_77_00,
                            upgrade_from_08_00_37_to_08_00_38, upgrade_from_08_05_08_to_08_05_09}) {
        const json_ptr document(cJSON_Duplicate(original.get(), true));
        must(step(document.get()), "a step succeeds");
        must_read_back(document.get());
    }
}
