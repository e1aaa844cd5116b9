// Owning handle for trees of the JSON library. A plain `cJSON *` in this program is borrowed.
#pragma once

#include <cjson/cJSON.h>

#include <memory>

struct json_deleter {
    void operator()(cJSON *item) const {
        cJSON_Delete(item);
    }
};

using json_ptr = std::unique_ptr<cJSON, json_deleter>;
