// Pieces of the step from 08.04.99 to 08.05.01: date-times in the form "%FT%TZ", and a fresh
// crash-dump record.
#pragma once

#include <cjson/cJSON.h>

// A text member of the section becomes its first 19 characters and a "Z" if that is a date-time,
// null otherwise. A missing, null or empty member is left.
void convert_datetime_field_to_valid_format(cJSON *root, const char *section, const char *name);
void convert_datetime_fields_to_valid_format(cJSON *root);

void reset_segfault_section(cJSON *root);
