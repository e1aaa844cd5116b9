// What several unit tests share: a directory of their own, JSON as text, and the log as text.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <string>

#include "common/json.h"
#include "common/logger.h"
#include "config/config.h"

class temporary_directory {
public:
    // Directly below `parent`.
    explicit temporary_directory(const std::string &parent = "/tmp")
        : path_(parent + "/nimbrelc_test.XXXXXX") {
        static_cast<void>(!mkdtemp(path_.data()));
    }
    ~temporary_directory() {
        std::filesystem::remove_all(path_);
    }

    const std::string &path() const {
        return path_;
    }
    std::string operator/(const char *name) const {
        return path_ + "/" + name;
    }

private:
    std::string path_;
};

inline json_ptr parse(const std::string &text) {
    return json_ptr(cJSON_Parse(text.c_str()));
}

inline std::string print(const cJSON *item) {
    const std::string text = print_json_unformatted(item);
    return text.empty() ? "nothing" : text;
}
inline std::string print(const json_ptr &item) {
    return print(item.get());
}

// Records of partitions: labels and mount points in turn.
inline json_ptr partitions_of(std::span<const std::string> texts) {
    json_ptr partitions(cJSON_CreateArray());
    for (; texts.size() >= 2; texts = texts.subspan(2)) {
        cJSON *record = cJSON_CreateObject();
        cJSON_AddStringToObject(record, "label", texts[0].c_str());
        cJSON_AddStringToObject(record, "mount_point", texts[1].c_str());
        cJSON_AddItemToArray(partitions.get(), record);
    }
    return partitions;
}

inline std::string content(const std::string &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The configuration document, read from a file of its own and gone with it.
class stored_document {
public:
    explicit stored_document(const std::string &text, const std::string &parent = "/tmp")
        : directory_(parent) {
        std::ofstream(path_) << text;
        load();
    }
    ~stored_document() {
        nimbrelc_config_free();
    }

    // What the file holds there, as text.
    std::string saved(const char *item) const {
        const json_ptr document = parse(content(path_));
        const cJSON *found = nimbrelc_utils_get_json_object(document.get(), item, nullptr);
        return print(found);
    }

    // What a daemon that starts anew finds.
    void load() const {
        nimbrelc_config_load(path_.c_str());
    }

private:
    const temporary_directory directory_;
    const std::string path_ = directory_ / "document.json";
};

inline size_t open_descriptors() {
    using entries = std::filesystem::directory_iterator;
    return static_cast<size_t>(std::distance(entries("/proc/self/fd"), entries()));
}

// Collects what is logged, without the times, while it exists.
class recorded_log {
public:
    recorded_log() {
        static const custom_logger recorder = {nullptr, nullptr, add, nullptr};
        text.clear();
        logger_set_custom_logger(&recorder);
        logger_init("enabled=true:level=info");
    }
    ~recorded_log() {
        logger_set_custom_logger(nullptr);
        logger_cleanup();
    }

    static bool has(const char *part) {
        return text.find(part) != std::string::npos;
    }

    static inline std::string text;

private:
    static void add(const char *, int, const char *line, const char *, size_t) {
        text += line + 24;
    }
};
