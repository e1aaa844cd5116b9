// Every migration step: each edits the configuration document in place so that it fits the next
// firmware version. Steps never fail; what a document lacks is skipped. A member that is present
// but of an unexpected kind counts as missing where a section is meant.
#pragma once

#include <cjson/cJSON.h>

// In the table of the product variant kq3.
bool kq3_upgrade_from_08_04_99_to_08_05_01(cJSON *root);
bool kq3_upgrade_from_08_05_08_to_08_05_09(cJSON *root);

// In no table of this variant; built and kept with the same contract.
bool upgrade_from_07_70_13_to_07_70_14(cJSON *root);
bool upgrade_from_07_71_99_to_07_77_00(cJSON *root);
bool upgrade_from_08_00_37_to_08_00_38(cJSON *root);
bool upgrade_from_08_05_08_to_08_05_09(cJSON *root);
