// Services on a configuration of any kind, in a simulated box: document, texts of the display, what
// commands say. No value of the document adds anything to a command line.
#include "common/timer.h"
#include "daemon/nimbrelc.h"
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
        if (line[i] == '"') {
            quoted = !quoted;
        } else if (line[i] == '\\') {
            ++i;
        } else if (std::string_view(quoted ? "$`" : "$`';&|<>()*?[{~#\n").find(line[i]) !=
                   std::string_view::npos) {
            return false;
        }
    }
    return !quoted;
}

}  // namespace

void fuzz(std::string_view input) {
    constexpr size_t simulated_length = 1023;
    const std::vector<std::string> texts = fields(input, 3);
    std::ofstream(get_nimbrelc_config_file_location()) << texts[0];
    if (!nimbrelc_config_load(get_nimbrelc_config_file_location())) {
        return;
    }
    simulated_box::reset();
    simulated_box::run = [&texts](const std::string &, std::string &output) {
        output = texts[2];
        return 0;
    };
    std::filesystem::create_directories("/opt/app");
    std::ofstream("/opt/app/locales.json") << texts[1];
    for (const auto start : {syslog_utils_configure, datamodel_start, ssh_start, vpn_start,
                             segfault_start, lcd_start, dlna_manager_start}) {
        start(nullptr);
    }
    for (int event = LCD_EVENT_SD_ATTACHED; event <= LCD_EVENT_FIRMWARE_UPGRADE; ++event) {
        lcd_show_event(texts[2].c_str(), event, true);
    }
    ssh_update_port_forwarding();
    vpn_restart();
    bool is_up = false;
    const bool known = service_manager_is_up("smbd", &is_up) == 0;
    must(known == (texts[2].starts_with("up") || texts[2].starts_with("down")) &&
             is_up == texts[2].starts_with("up"),
         "a daemon is up or down when it is said to be");
    simulated_box::pass(3600);
    for (const std::string &command : simulated_box::take_commands()) {
        must(command.size() >= simulated_length || is_one_command(command),
             "a value adds nothing to a command line");
    }
    const std::string document = text_of(get_config_root());
    must(nimbrelc_config_save() && nimbrelc_config_load(get_nimbrelc_config_file_location()) &&
             text_of(get_config_root()) == document,
         "the document loads as it was");
    ssh_stop();
    lcd_stop();
}
