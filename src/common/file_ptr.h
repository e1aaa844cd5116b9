// Owning handle for a C stream. A writer closes by hand (`fclose(file.release())`) to see the flush
// fail.
#pragma once

#include <cstdio>
#include <memory>

struct file_deleter {
    void operator()(FILE *file) const {
        fclose(file);
    }
};

using file_ptr = std::unique_ptr<FILE, file_deleter>;
