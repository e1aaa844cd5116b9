// A message bus of one's own: a real dbus-daemon on a socket in a fresh directory, made the system
// bus of this process (DBUS_SYSTEM_BUS_ADDRESS) and ended with the object.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "common/files.h"
#include "helpers.h"

class private_bus {
public:
    // `policy` is added to the rules of a bus on which everything is allowed.
    explicit private_bus(const std::string &policy = "") {
        const std::string configuration = directory_ / "bus.conf";
        std::ofstream(configuration)
            << "<!DOCTYPE busconfig PUBLIC '-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN'\n"
               " 'http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd'>\n"
               "<busconfig><listen>unix:path="
            << directory_ / "socket"
            << "</listen>\n"
               "<policy context='default'><allow own='*'/>\n"
               "<allow send_destination='*' send_requested_reply='false'/>\n"
               "<allow receive_sender='*' receive_requested_reply='false'/>"
            << policy << "\n</policy></busconfig>\n";
        int address[2];
        if (pipe2(address, O_CLOEXEC) != 0) {
            return;
        }
        daemon_ = fork();
        if (daemon_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            dup2(address[1], STDOUT_FILENO);
            execlp("dbus-daemon", "dbus-daemon", "--nofork", "--print-address", "--config-file",
                   configuration.c_str(), nullptr);
            _exit(127);
        }
        close(address[1]);
        // Written only when the bus takes connections.
        const file_ptr reader(fdopen(address[0], "r"));
        char line[512] = "";
        if (fgets(line, sizeof(line), reader.get()) != nullptr) {
            std::string text(line);
            text.erase(text.find_last_not_of('\n') + 1);
            setenv("DBUS_SYSTEM_BUS_ADDRESS", text.c_str(), 1);
            ready_ = true;
        }
    }
    ~private_bus() {
        if (daemon_ > 0) {
            kill(daemon_, SIGTERM);
            waitpid(daemon_, nullptr, 0);
        }
    }
    private_bus(const private_bus &) = delete;
    private_bus &operator=(const private_bus &) = delete;

    bool ready() const {
        return ready_;
    }

private:
    const temporary_directory directory_;
    pid_t daemon_ = -1;
    bool ready_ = false;
};
