#include "sharing/share_names.h"

#include <clocale>
#include <cwchar>
#include <cwctype>

#include <algorithm>
#include <iterator>
#include <map>
#include <string_view>
#include <utility>

#include "common/json.h"
#include "common/texts.h"
#include "disks/disks.h"

namespace {

constexpr char replacement = '_';

constexpr std::string_view reserved_names[] = {"global", "globals", "homes",    "printers",
                                               "print$", "ipc$",    "netlogon", "profiles"};

// A name as servers compare it: each run of blanks as one, and in small letters, of all alphabets
// where the box knows them.
std::string compared_form(std::string_view name) {
    static const locale_t all_alphabets = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    std::string form;
    for (const char c : name) {
        if (c != ' ' || form.empty() || form.back() != ' ') {
            form += c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
        }
    }
    if (all_alphabets == nullptr) {
        return form;
    }
    const locale_t before = uselocale(all_alphabets);
    std::wstring wide(form.size() + 1, L'\0');
    const size_t length = mbstowcs(wide.data(), form.c_str(), wide.size());
    if (length != static_cast<size_t>(-1)) {
        wide.resize(length);
        std::transform(wide.begin(), wide.end(), wide.begin(), [](wchar_t c) {
            return static_cast<wchar_t>(towlower(static_cast<wint_t>(c)));
        });
        std::string folded(length * MB_CUR_MAX + 1, '\0');
        folded.resize(wcstombs(folded.data(), wide.c_str(), folded.size()));
        form = std::move(folded);
    }
    uselocale(before);
    return form;
}

std::string written_label(const cJSON *partition) {
    std::string label = printable(json_text(partition, "label"));
    std::replace(label.begin(), label.end(), ']', replacement);
    // Servers find their own sections among names without any blanks.
    std::string form = compared_form(label);
    std::erase(form, ' ');
    // For a section without a name servers refuse the whole file, with every other share.
    if (form.empty() || std::find(std::begin(reserved_names), std::end(reserved_names), form) !=
                            std::end(reserved_names)) {
        label.insert(label.begin(), replacement);
    }
    return label;
}

}  // namespace

std::vector<named_share> share_names_of(const cJSON *partitions,
                                        bool (*can_serve)(const cJSON *partition)) {
    std::vector<named_share> shares;
    if (!cJSON_IsArray(partitions)) {
        return shares;
    }
    std::map<std::string, std::string_view> taken;  // compared form, mount point
    const cJSON *partition = nullptr;
    cJSON_ArrayForEach(partition, partitions) {
        if (!disk_record_is_mounted(partition) || (can_serve != nullptr && !can_serve(partition))) {
            continue;
        }
        const std::string_view mount_point = json_text(partition, "mount_point");
        std::string name = written_label(partition);
        std::string form = compared_form(name);
        // A partition that is announced twice is one share, written twice.
        while (taken.try_emplace(form, mount_point).first->second != mount_point) {
            name += replacement;
            form += replacement;
        }
        shares.push_back({partition, std::move(name)});
    }
    return shares;
}
