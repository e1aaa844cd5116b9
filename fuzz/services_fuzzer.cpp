// Services on a configuration of any kind, in a simulated box: document, texts of the display, what
// commands say. No value of the document adds anything to a command line.
#include "datamodel/datamodel.h"
#include "fuzz.h"
#include "maintenance/maintenance.h"
#include "platform/lcd.h"
#include "platform/service_manager.h"
#include "remote_access/remote_access.h"
#include "sharing/sharing.h"
#include "simulated/simulated_box.h"

namespace {

// As the shell reads it.
bool is_one_command(const std::string &line) {
    bool quoted = false;
    for (size_t i = 0; i < line.size(); ++i) {
        const std::string_view active = quoted ? "$`" : "$`';&|<>()*?[{~#\n";
        if (active.find(line[i]) != std::string_view::npos) {
            return false;
        }
        quoted = quoted != (line[i] == '"');
        i += size_t{line[i] == '\\'};
    }
    return !quoted;
}

}  // namespace

void fuzz(std::string_view input) {
    const std::vector<std::string> texts = fields(input, 3);
    const std::string &said = texts[2];
    if (!load_document(texts[0])) {
        return;
    }
    std::ofstream("/opt/app/locales.json") << texts[1];
    simulated_box::reset();
    simulated_box::run = [&said](const std::string &, std::string &output) {
        output = said;
        return 0;
    };
    for (const auto start : {syslog_utils_configure, datamodel_start, ssh_start, vpn_start,
                             segfault_start, lcd_start, dlna_manager_start}) {
        start();
    }
    lcd_show_event(said.c_str(), LCD_EVENT_SD_ATTACHED, true);
    vpn_restart();
    const std::optional<bool> is_up = service_manager_is_up("smbd");
    must(is_up.has_value() == (said.starts_with("up") || said.starts_with("down")) &&
             is_up.value_or(false) == said.starts_with("up"),
         "a daemon is up or down when it is said to be");
    simulated_box::pass(3600);
    for (const std::string &command : simulated_box::take_commands()) {
        must(is_one_command(command), "a value adds nothing to a command line");
    }
    must_save_document();
}
