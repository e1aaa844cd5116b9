// The names under which partitions are shared, as both file servers read them.
#pragma once

#include <cjson/cJSON.h>

#include <string>
#include <vector>

struct named_share {
    const cJSON *partition;
    std::string name;  // as it is written between brackets
};

// The mounted partitions of a list (which may be null), in its order, but for those that
// `can_serve` (may be null) refuses. The names are the labels where these can stand: no name is
// empty, adds a line, means something else to a server, or is that of an earlier share with another
// mount point.
std::vector<named_share> share_names_of(const cJSON *partitions,
                                        bool (*can_serve)(const cJSON *partition) = nullptr);
